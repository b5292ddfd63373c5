// Words and numbers in the text that the server's functions write.
#pragma once

#include <charconv>
#include <string_view>
#include <system_error>

namespace vvl::mom
{

// False where the text is not a number and nothing else.
template <typename Number> bool parse_number(std::string_view text, Number &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// Takes the text up to the next separator, and the separator.
inline std::string_view take_word(std::string_view &text, char separator)
{
    const size_t end = text.find(separator);
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return word;
}

} // namespace vvl::mom

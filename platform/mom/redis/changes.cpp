#include "platform/mom/redis/changes.h"

#include "platform/mom/redis/words.h"

namespace vvl::mom
{
namespace
{

bool parse_kind(std::string_view word, ChangeKind &kind)
{
    static constexpr struct {
        char letter;
        ChangeKind kind;
    } kinds[] = {{'s', ChangeKind::set},
                 {'f', ChangeKind::fields_set},
                 {'r', ChangeKind::removed},
                 {'p', ChangeKind::published}};
    for (const auto &row : kinds) {
        if (word == std::string_view(&row.letter, 1)) {
            kind = row.kind;
            return true;
        }
    }
    return false;
}

// "-", or numbers with commas between them.
bool parse_field_numbers(std::string_view text, std::vector<uint32_t> &fields)
{
    while (text != "-" && !text.empty()) {
        uint32_t number = 0;
        if (!parse_number(take_word(text, ','), number)) {
            return false;
        }
        fields.push_back(number);
    }
    return true;
}

} // namespace

bool read_message(uint32_t db, std::string_view text, ChangeMessage &message)
{
    message.text = text;
    std::string_view head = take_word(text, '\n');
    Change &change = message.change;
    if (!parse_number(take_word(head, ' '), message.number) || !parse_number(take_word(head, ' '), message.count) ||
        message.count == 0 || !parse_kind(take_word(head, ' '), change.kind)) {
        return false;
    }
    change.name.db = db;
    change.name.type = take_word(head, ' ');
    message.offset = message.text.size() - text.size();
    return parse_field_numbers(head, change.fields);
}

bool take_change(ChangeMessage &message)
{
    std::string_view text = std::string_view(message.text).substr(message.offset);
    size_t key_size = 0;
    size_t value_size = 0;
    if (!parse_number(take_word(text, ' '), key_size) || !parse_number(take_word(text, '\n'), value_size) ||
        key_size > text.size() || value_size > text.size() - key_size) {
        return false;
    }
    Change &change = message.change;
    change.name.key = text.substr(0, key_size);
    const std::string_view value = text.substr(key_size, value_size);
    message.offset = message.text.size() - text.size() + key_size + value_size;
    message.number++;
    message.count--;
    if (key_size > 0) {
        change.value.bytes = value;
        return true;
    }
    change.value.fields.clear();
    return parse_redis_fields(value, change.value.fields);
}

bool parse_redis_fields(std::string_view text, FieldMap &fields)
{
    while (!text.empty()) {
        uint32_t number = 0;
        size_t size = 0;
        if (!parse_number(take_word(text, ' '), number) || !parse_number(take_word(text, '\n'), size) ||
            size > text.size()) {
            return false;
        }
        fields[number] = text.substr(0, size);
        text.remove_prefix(size);
    }
    return true;
}

} // namespace vvl::mom

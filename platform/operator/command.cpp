// Matches a line against the rows of a grammar. All rows are tried; when none
// matches, the ones that went furthest say what was expected at that place,
// which is what the writer of the line needs.
#include "platform/operator/command.h"

#include "platform/base/file.h"

#include <algorithm>

namespace vvl::oper
{
namespace
{

// A word of a pattern. Required words are in group 0, the words of each "[...]"
// in a group of their own.
struct PatternWord {
    std::string text;
    size_t group;
};

struct Mismatch {
    size_t at = 0;                     // index of the word that did not match
    std::string reason;                // of a typed argument; otherwise empty
    std::vector<std::string> expected; // words that would have matched
};

std::vector<std::string> split_alternatives(const std::string &text)
{
    std::vector<std::string> words;
    size_t begin = 0;
    for (size_t end = text.find('|'); end != std::string::npos; end = text.find('|', begin)) {
        words.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    words.push_back(text.substr(begin));
    return words;
}

std::vector<PatternWord> split_pattern(const char *pattern)
{
    std::vector<PatternWord> words;
    size_t group = 0;
    size_t groups = 0;
    std::string word;
    auto finish = [&] {
        if (!word.empty()) {
            words.push_back({word, group});
            word.clear();
        }
    };
    for (const char *c = pattern; *c != '\0'; c++) {
        if (*c == '[') {
            group = ++groups;
        } else if (*c == ']' || *c == ' ') {
            finish();
            group = *c == ']' ? 0 : group;
        } else {
            word += *c;
        }
    }
    finish();
    return words;
}

const ArgumentType *find_type(const Grammar &grammar, const std::string &name)
{
    auto found =
        std::find_if(grammar.types.begin(), grammar.types.end(), [&](const auto &t) { return t.name == name; });
    return found == grammar.types.end() ? nullptr : &*found;
}

// Matches one word. Typed arguments are added to args, and words that stand for
// a choice: one of several, or one that may be left out.
bool match_word(const Grammar &grammar, const PatternWord &expected, const std::string &word, Arguments &args,
                Mismatch &miss)
{
    const std::string &pattern = expected.text;
    if (const ArgumentType *type = find_type(grammar, pattern)) {
        Argument argument;
        argument.name = pattern;
        argument.text = word;
        if (!type->read(*type, grammar, word, argument, miss.reason)) {
            return false;
        }
        args.add(std::move(argument));
        return true;
    }
    const auto alternatives = split_alternatives(pattern);
    if (std::find(alternatives.begin(), alternatives.end(), word) == alternatives.end()) {
        miss.expected.insert(miss.expected.end(), alternatives.begin(), alternatives.end());
        return false;
    }
    if (alternatives.size() > 1 || expected.group != 0) {
        Argument argument;
        argument.name = pattern;
        argument.text = word;
        args.add(std::move(argument));
    }
    return true;
}

// Matches a whole row; on failure miss says where and why.
bool match_row(const Grammar &grammar, const CommandRow &row, const std::vector<std::string> &words, Arguments &args,
               Mismatch &miss)
{
    size_t at = 0;
    const auto pattern = split_pattern(row.pattern);
    for (size_t i = 0; i < pattern.size(); i++) {
        const bool optional = pattern[i].group != 0 && pattern[i].group != pattern[i - 1].group;
        if (optional && at == words.size()) {
            break;
        }
        miss.at = at;
        if (at < words.size() && match_word(grammar, pattern[i], words[at], args, miss)) {
            miss = {};
            at++;
            continue;
        }
        if (at == words.size()) {
            miss.expected = find_type(grammar, pattern[i].text) != nullptr ? std::vector{pattern[i].text}
                                                                           : split_alternatives(pattern[i].text);
        }
        if (!optional) {
            return false;
        }
        // This part was left out; continue after it.
        while (i + 1 < pattern.size() && pattern[i + 1].group == pattern[i].group) {
            i++;
        }
    }
    miss.at = at;
    return at == words.size();
}

size_t edit_distance(std::string_view a, std::string_view b)
{
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j < row.size(); j++) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            const size_t above = row[j];
            row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// "; did you mean 'vlan'?" where one of the words is close, otherwise nothing.
std::string suggestion(const std::string &word, const std::vector<std::string> &known)
{
    size_t best = std::min<size_t>(2, word.size() / 2) + 1;
    const std::string *closest = nullptr;
    for (const std::string &candidate : known) {
        const size_t distance = edit_distance(word, candidate);
        if (distance < best) {
            best = distance;
            closest = &candidate;
        }
    }
    return closest != nullptr ? "; did you mean '" + *closest + "'?" : "";
}

std::string join(const std::vector<std::string> &words, size_t count, const char *between, const char *before_last)
{
    std::string text;
    for (size_t i = 0; i < count; i++) {
        text += (i == 0 ? "" : i + 1 == count ? before_last : between) + words[i];
    }
    return text;
}

std::string explain(const std::vector<std::string> &words, const Mismatch &miss)
{
    if (!miss.reason.empty()) {
        return miss.reason;
    }
    const std::string before = "'" + join(words, miss.at, " ", " ") + "'";
    if (miss.at == 0) {
        return "unknown command '" + words[0] + "'" + suggestion(words[0], miss.expected);
    }
    if (miss.expected.empty()) {
        return "'" + words[miss.at] + "' after " + before + ": nothing more is expected";
    }
    const std::string expected = "expected " + join(miss.expected, miss.expected.size(), ", ", " or ");
    if (miss.at == words.size()) {
        return before + " is incomplete: " + expected;
    }
    return "'" + words[miss.at] + "' after " + before + ": " + expected + suggestion(words[miss.at], miss.expected);
}

// Keeps the mismatch that went furthest; equals add what they expected.
void keep_furthest(Mismatch &furthest, const Mismatch &miss)
{
    if (miss.at > furthest.at) {
        furthest = miss;
    } else if (miss.at == furthest.at) {
        if (furthest.reason.empty()) {
            furthest.reason = miss.reason;
        }
        for (const std::string &word : miss.expected) {
            if (std::find(furthest.expected.begin(), furthest.expected.end(), word) == furthest.expected.end()) {
                furthest.expected.push_back(word);
            }
        }
    }
}

} // namespace

const Argument *Arguments::find(std::string_view name) const
{
    auto found = std::find_if(list_.begin(), list_.end(), [&](const Argument &a) { return a.name == name; });
    return found == list_.end() ? nullptr : &*found;
}

bool split_words(std::string_view line, std::vector<std::string> &words, std::string &why)
{
    std::vector<std::string> split;
    for (size_t i = 0; i < line.size();) {
        const char c = line[i];
        if (c == ' ' || c == '\t' || c == '\r') {
            i++;
            continue;
        }
        if (c == '#') {
            break;
        }
        const char *stops = c == '"' ? "\"" : " \t\r";
        const size_t begin = c == '"' ? i + 1 : i;
        const size_t end = line.find_first_of(stops, begin);
        if (c == '"' && end == std::string_view::npos) {
            why = "the quotation mark is not closed";
            return false;
        }
        split.emplace_back(line.substr(begin, end - begin));
        i = end == std::string_view::npos ? line.size() : end + 1;
    }
    words = std::move(split);
    return true;
}

bool parse_command(const Grammar &grammar, std::string_view line, Command &command, std::string &why)
{
    if (line.size() > input_line_size_max) {
        why = "the line is longer than " + std::to_string(input_line_size_max) + " bytes";
        return false;
    }
    if (std::any_of(line.begin(), line.end(),
                    [](char c) { return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\r'; })) {
        why = "the line holds a control character";
        return false;
    }
    std::vector<std::string> words;
    if (!split_words(line, words, why)) {
        return false;
    }
    if (words.empty()) {
        command = {};
        return true;
    }
    Mismatch furthest;
    for (const CommandRow &row : grammar.rows) {
        Command parsed{&row, {}};
        Mismatch miss;
        if (match_row(grammar, row, words, parsed.args, miss)) {
            if (row.check != nullptr && !row.check(grammar, parsed.args, why)) {
                return false;
            }
            command = std::move(parsed);
            return true;
        }
        keep_furthest(furthest, miss);
    }
    why = explain(words, furthest);
    return false;
}

std::string command_help(const Grammar &grammar)
{
    constexpr size_t column = 48;
    std::string text = "Commands:\n";
    auto add_row = [&text](const std::string &left, const char *help) {
        text += "  " + left + std::string(left.size() < column ? column - left.size() : 1, ' ') + help + "\n";
    };
    for (const CommandRow &row : grammar.rows) {
        add_row(row.pattern, row.help);
    }
    text += "Arguments:\n";
    for (const ArgumentType &type : grammar.types) {
        add_row(type.name, type.help);
    }
    return text;
}

} // namespace vvl::oper

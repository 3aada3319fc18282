// Line rules of the INI configuration store, as plain functions over text (no file I/O).
#ifndef KTCFG_INTERNAL_H
#define KTCFG_INTERNAL_H

#include "lib/kt_internal.h"

#include <string_view>

namespace ktcfg {

// A header starts with "[" and holds a "]" somewhere; a "[" line without "]" is not one.
constexpr bool is_header(std::string_view line) {
    return !line.empty() && line[0] == '[' && line.find(']') != std::string_view::npos;
}

// The text between the "[" and the first "]"; whatever follows the "]" does not count.
constexpr std::string_view header_name(std::string_view line) {
    return kt::sub(line, 1, line.find(']') - 1);
}

struct key_value {
    std::string_view key;
    std::string_view value;
};

// Splits at the first "=": the key is everything before it, the value everything after it
// up to the first line feed. Nothing is trimmed, so blanks and a carriage return stay part of
// the key or value: other programs of the appliance write and read the files this way.
// False for a line without "=".
constexpr bool split_key_value(std::string_view line, key_value *out) {
    auto eq = line.find('=');
    if (eq == std::string_view::npos)
        return false;
    std::string_view value = kt::sub(line, eq + 1);
    out->key = kt::sub(line, 0, eq);
    out->value = kt::sub(value, 0, value.find('\n'));
    return true;
}

// Follows the lines of a file while the readers look for the key lines of one section.
// With an empty name the section is the top of the file, before any header.
class section_cursor {
  public:
    enum step {
        skip,     // before the section, or a line of it without "="
        key_line, // a key line of the section: split it
        end,      // the next header: the section is over
    };

    explicit constexpr section_cursor(std::string_view name) : name_(name), inside_(name.empty()) {}

    constexpr step feed(std::string_view line) {
        if (!inside_) {
            inside_ = is_header(line) && header_name(line) == name_;
            return skip;
        }
        if (is_header(line))
            return end;
        return line.find('=') == std::string_view::npos ? skip : key_line;
    }

    // Whether the section's header has been seen (always true for the top of the file).
    constexpr bool found() const { return inside_; }

  private:
    std::string_view name_;
    bool inside_;
};

} // namespace ktcfg

#endif

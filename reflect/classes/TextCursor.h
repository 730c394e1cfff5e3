#pragma once

#include <cstddef>
#include <string_view>

/** A place in a text that people have written. Blanks are skipped ahead of what is looked for. */
class TextCursor {
public:
    explicit TextCursor(std::string_view text) : left_(text) {}

    /** Passes `wanted` if it is next. */
    bool accept(char wanted) {
        skipBlanks();
        if (left_.empty() || left_.front() != wanted)
            return false;
        left_.remove_prefix(1);
        return true;
    }
    /** Whether nothing but blanks is left. */
    bool atEnd() {
        skipBlanks();
        return left_.empty();
    }
    /** Whether nothing is left. */
    bool empty() const { return left_.empty(); }
    /** Passes the letters, digits, signs and underscores that are next; may be none. */
    std::string_view word() {
        skipBlanks();
        return take(left_.find_first_not_of(
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_+-"));
    }
    /** Passes what a floating-point number is made of; may be none. */
    std::string_view real() {
        skipBlanks();
        return take(left_.find_first_not_of("0123456789abcdefinty.+-E"));
    }
    /** Passes the name that is next, of letters, digits, underscores and ::, which begins with none
     * of the digits; may be none. */
    std::string_view identifier() {
        skipBlanks();
        if (!left_.empty() && left_.front() >= '0' && left_.front() <= '9')
            return {};
        std::size_t end = 0;
        for (; end < left_.size(); ++end) {
            if (left_.compare(end, 2, "::") == 0)
                ++end;
            else if (kNameCharacters.find(left_[end]) == std::string_view::npos)
                break;
        }
        return take(end);
    }
    /** Passes all up to the next of `ends`, and answers it without blanks at its ends. */
    std::string_view upTo(std::string_view ends) {
        skipBlanks();
        std::string_view text = take(left_.find_first_of(ends));
        std::size_t const last = text.find_last_not_of(kBlanks);
        return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
    }
    /** The next character, blank or not, which is passed; '\0' at the end. */
    char next() {
        char const found = left_.empty() ? '\0' : left_.front();
        take(1);
        return found;
    }
    /** The next `n` characters, blank or not, or what there is. */
    std::string_view take(std::size_t n) {
        std::string_view const taken = left_.substr(0, n);
        left_.remove_prefix(taken.size());
        return taken;
    }

private:
    static constexpr std::string_view kBlanks = " \t\r\n";
    static constexpr std::string_view kNameCharacters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";

    void skipBlanks() {
        std::size_t const first = left_.find_first_not_of(kBlanks);
        left_.remove_prefix(first == std::string_view::npos ? left_.size() : first);
    }

    std::string_view left_;
};

// Conversion patterns of the back end: compiled once per configuration, rendered per message.
#pragma once

#include <time.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zl {

// Everything a conversion specifier can show about one log call.
struct Event {
    std::string_view category;
    std::string_view file;
    std::string_view func;
    long line;
    std::string_view level_name;  // upper case, as configured
    std::string_view message;
    timespec now;  // one reading for all time specifiers of the line
};

// A pattern such as "%d(%F %T).%ms %p (%t) %-5V %c - %U - %m%n". Each specifier takes an
// optional "-" (left-justify), a minimum width and a "." maximum width, as in zlog.
class Pattern {
  public:
    // Null for an unknown specifier, a lone trailing "%" or an unclosed "%d(".
    static std::optional<Pattern> compile(std::string_view text);
    // Appends the rendered line to out.
    void render(const Event &event, std::string &out) const;

  private:
    enum class Kind : char {
        Literal,
        Category,    // %c
        Date,        // %d or %d(strftime text), local time
        Millis,      // %ms, three digits
        Micros,      // %us, six digits
        File,        // %F, the source path as passed
        FileBase,    // %f, the source path without its directories
        Host,        // %H
        Line,        // %L
        Message,     // %m
        Newline,     // %n
        Pid,         // %p
        ThreadHex,   // %t
        ThreadDec,   // %T
        Function,    // %U
        LevelUpper,  // %V
        LevelLower,  // %v
    };
    struct Piece {
        Kind kind = Kind::Literal;
        bool left = false;
        size_t min_width = 0;
        size_t max_width = 0;  // 0: no limit
        std::string text;      // literal text, or the strftime text of %d
    };
    std::vector<Piece> pieces_;
};

}  // namespace zl

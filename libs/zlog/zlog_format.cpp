#include "zlog_format.h"

#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

namespace zl {

namespace {

constexpr std::string_view kDefaultTimeFormat = "%F %T";

// Appends value padded to the piece's minimum width and cut to its maximum width.
void append_field(std::string &out, std::string_view value, bool left, size_t min_width,
                  size_t max_width) {
    if (max_width && value.size() > max_width) value = value.substr(0, max_width);
    size_t pad = value.size() < min_width ? min_width - value.size() : 0;
    if (!left) out.append(pad, ' ');
    out.append(value);
    if (left) out.append(pad, ' ');
}

// A field width beyond any log line's buffer is a configuration error, not a request to pad
// a line to gigabytes.
constexpr size_t kMaxFieldWidth = 4096;

// The decimal number at i, or kMaxFieldWidth + 1 once it exceeds the largest width.
size_t read_number(std::string_view text, size_t &i) {
    size_t n = 0;
    while (i < text.size() && isdigit(static_cast<unsigned char>(text[i]))) {
        n = n * 10 + size_t(text[i++] - '0');
        if (n > kMaxFieldWidth) n = kMaxFieldWidth + 1;
    }
    return n;
}

}  // namespace

std::optional<Pattern> Pattern::compile(std::string_view text) {
    Pattern pattern;
    std::string literal;
    auto flush_literal = [&] {
        if (literal.empty()) return;
        pattern.pieces_.push_back(Piece{Kind::Literal, false, 0, 0, literal});
        literal.clear();
    };
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            literal += text[i];
            continue;
        }
        if (++i == text.size()) return std::nullopt;
        if (text[i] == '%') {
            literal += '%';
            continue;
        }
        flush_literal();
        Piece piece;
        if (text[i] == '-') {
            piece.left = true;
            ++i;
        }
        piece.min_width = read_number(text, i);
        if (i < text.size() && text[i] == '.') piece.max_width = read_number(text, ++i);
        if (i == text.size() || piece.min_width > kMaxFieldWidth ||
            piece.max_width > kMaxFieldWidth)
            return std::nullopt;
        bool next_is_s = i + 1 < text.size() && text[i + 1] == 's';
        switch (text[i]) {
            case 'c':
                piece.kind = Kind::Category;
                break;
            case 'd': {
                piece.kind = Kind::Date;
                piece.text = kDefaultTimeFormat;
                if (i + 1 < text.size() && text[i + 1] == '(') {
                    size_t close = text.find(')', i + 2);
                    if (close == std::string_view::npos) return std::nullopt;
                    piece.text = text.substr(i + 2, close - i - 2);
                    i = close;
                }
                break;
            }
            case 'm':
                piece.kind = next_is_s ? Kind::Millis : Kind::Message;
                i += next_is_s;
                break;
            case 'u':
                if (!next_is_s) return std::nullopt;
                piece.kind = Kind::Micros;
                ++i;
                break;
            case 'F':
                piece.kind = Kind::File;
                break;
            case 'f':
                piece.kind = Kind::FileBase;
                break;
            case 'H':
                piece.kind = Kind::Host;
                break;
            case 'L':
                piece.kind = Kind::Line;
                break;
            case 'n':
                piece.kind = Kind::Newline;
                break;
            case 'p':
                piece.kind = Kind::Pid;
                break;
            case 't':
                piece.kind = Kind::ThreadHex;
                break;
            case 'T':
                piece.kind = Kind::ThreadDec;
                break;
            case 'U':
                piece.kind = Kind::Function;
                break;
            case 'V':
                piece.kind = Kind::LevelUpper;
                break;
            case 'v':
                piece.kind = Kind::LevelLower;
                break;
            default:
                return std::nullopt;
        }
        pattern.pieces_.push_back(std::move(piece));
    }
    flush_literal();
    return pattern;
}

void Pattern::render(const Event &event, std::string &out) const {
    char scratch[256];
    for (const Piece &piece : pieces_) {
        std::string_view value;
        switch (piece.kind) {
            case Kind::Literal:
                out += piece.text;
                continue;
            case Kind::Category:
                value = event.category;
                break;
            case Kind::Date: {
                tm local{};
                localtime_r(&event.now.tv_sec, &local);
                value = {scratch, strftime(scratch, sizeof scratch, piece.text.c_str(), &local)};
                break;
            }
            case Kind::Millis:
                value = {scratch, size_t(snprintf(scratch, sizeof scratch, "%03ld",
                                                  event.now.tv_nsec / 1000000))};
                break;
            case Kind::Micros:
                value = {scratch, size_t(snprintf(scratch, sizeof scratch, "%06ld",
                                                  event.now.tv_nsec / 1000))};
                break;
            case Kind::File:
                value = event.file;
                break;
            case Kind::FileBase: {
                size_t slash = event.file.rfind('/');
                value = slash == std::string_view::npos ? event.file : event.file.substr(slash + 1);
                break;
            }
            case Kind::Host:
                if (gethostname(scratch, sizeof scratch) != 0) scratch[0] = '\0';
                scratch[sizeof scratch - 1] = '\0';
                value = scratch;
                break;
            case Kind::Line:
                value = {scratch, size_t(snprintf(scratch, sizeof scratch, "%ld", event.line))};
                break;
            case Kind::Message:
                value = event.message;
                break;
            case Kind::Newline:
                value = "\n";
                break;
            case Kind::Pid:
                value = {scratch, size_t(snprintf(scratch, sizeof scratch, "%d", int(getpid())))};
                break;
            case Kind::ThreadHex:
                value = {scratch,
                         size_t(snprintf(scratch, sizeof scratch, "%x", unsigned(pthread_self())))};
                break;
            case Kind::ThreadDec:
                value = {scratch, size_t(snprintf(scratch, sizeof scratch, "%lu",
                                                  static_cast<unsigned long>(pthread_self())))};
                break;
            case Kind::Function:
                value = event.func;
                break;
            case Kind::LevelUpper:
                value = event.level_name;
                break;
            case Kind::LevelLower: {
                size_t n = std::min(event.level_name.size(), sizeof scratch);
                for (size_t k = 0; k < n; ++k)
                    scratch[k] = char(tolower(static_cast<unsigned char>(event.level_name[k])));
                value = {scratch, n};
                break;
            }
        }
        append_field(out, value, piece.left, piece.min_width, piece.max_width);
    }
}

}  // namespace zl

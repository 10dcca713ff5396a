#include "TrackerCore/JsonScan.h"

#include "TrackerCore/Json.h"
#include "TrackerCore/Text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace skeldrin::json_scan {
namespace {

constexpr int kMaxDepth = 512;

class Scanner {
public:
    explicit Scanner(std::string_view text)
        : p_(text.data())
        , end_(text.data() + text.size())
        , begin_(text.data())
    {
    }

    [[noreturn]] void fail(const char* what) const
    {
        throw DecodingError(std::string("not valid JSON: ") + what + " at byte " + std::to_string(p_ - begin_));
    }

    void whitespace()
    {
        while (p_ < end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) ++p_;
    }
    bool atEnd() const { return p_ == end_; }
    char peek() const { return p_ < end_ ? *p_ : '\0'; }
    const char* position() const { return p_; }
    void expect(char c)
    {
        if (p_ >= end_ || *p_ != c) fail(c == ':' ? "expected ':'" : "unexpected character");
        ++p_;
    }

    // Skips one string (p_ at its opening quote). Returns whether it had escapes.
    bool string()
    {
        expect('"');
        bool escaped = false;
        for (;;) {
            // Plain ASCII runs are by far the most common: check eight bytes at a time.
            while (end_ - p_ >= 8) {
                std::uint64_t word;
                std::memcpy(&word, p_, 8);
                constexpr std::uint64_t ones = 0x0101010101010101ULL, highs = 0x8080808080808080ULL;
                const std::uint64_t quote = word ^ (ones * '"'), backslash = word ^ (ones * '\\');
                const std::uint64_t special = ((quote - ones) & ~quote) | ((backslash - ones) & ~backslash) |
                                              (word - ones * 0x20) | word;
                if (special & highs) break;
                p_ += 8;
            }
            if (p_ >= end_) fail("unterminated string");
            const auto c = static_cast<unsigned char>(*p_);
            if (c == '"') {
                ++p_;
                return escaped;
            }
            if (c == '\\') {
                escaped = true;
                escape();
            } else if (c < 0x20) {
                fail("control character in string");
            } else if (c < 0x80) {
                ++p_;
            } else {
                utf8();
            }
        }
    }

    void value(int depth)
    {
        if (depth > kMaxDepth) fail("nested too deeply");
        whitespace();
        switch (peek()) {
        case '"': string(); return;
        case '{': object(depth); return;
        case '[': array(depth); return;
        case 't': literal("true"); return;
        case 'f': literal("false"); return;
        case 'n': literal("null"); return;
        default: number(); return;
        }
    }

    void object(int depth)
    {
        expect('{');
        whitespace();
        if (peek() == '}') return void(++p_);
        for (;;) {
            whitespace();
            if (peek() != '"') fail("expected a member name");
            string();
            whitespace();
            expect(':');
            value(depth + 1);
            whitespace();
            if (peek() == ',') {
                ++p_;
                continue;
            }
            expect('}');
            return;
        }
    }

private:
    void array(int depth)
    {
        expect('[');
        whitespace();
        if (peek() == ']') return void(++p_);
        for (;;) {
            value(depth + 1);
            whitespace();
            if (peek() == ',') {
                ++p_;
                continue;
            }
            expect(']');
            return;
        }
    }

    void literal(std::string_view word)
    {
        if (static_cast<std::size_t>(end_ - p_) < word.size() || std::string_view(p_, word.size()) != word)
            fail("unexpected character");
        p_ += word.size();
    }

    void digits()
    {
        if (p_ >= end_ || *p_ < '0' || *p_ > '9') fail("malformed number");
        while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
    }

    void number()
    {
        if (peek() == '-') ++p_;
        if (peek() == '0')
            ++p_;
        else
            digits();
        if (peek() == '.') {
            ++p_;
            digits();
        }
        if (peek() == 'e' || peek() == 'E') {
            ++p_;
            if (peek() == '+' || peek() == '-') ++p_;
            digits();
        }
    }

    unsigned hex4()
    {
        if (end_ - p_ < 4) fail("truncated \\u escape");
        unsigned v = 0;
        for (int i = 0; i < 4; ++i, ++p_) {
            const char c = *p_;
            v <<= 4;
            if (c >= '0' && c <= '9') v |= static_cast<unsigned>(c - '0');
            else if (c >= 'a' && c <= 'f') v |= static_cast<unsigned>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F') v |= static_cast<unsigned>(c - 'A' + 10);
            else fail("malformed \\u escape");
        }
        return v;
    }

    void escape()
    {
        ++p_; // the backslash
        if (p_ >= end_) fail("unterminated string");
        const char c = *p_++;
        if (std::strchr("\"\\/bfnrt", c) && c != '\0') return;
        if (c != 'u') fail("invalid escape");
        const unsigned unit = hex4();
        if (unit >= 0xDC00 && unit <= 0xDFFF) fail("lone low surrogate");
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') fail("high surrogate without its low half");
            p_ += 2;
            const unsigned low = hex4();
            if (low < 0xDC00 || low > 0xDFFF) fail("high surrogate without its low half");
        }
    }

    void utf8()
    {
        const std::size_t length = text::validSequenceLength(std::string_view(p_, static_cast<std::size_t>(end_ - p_)));
        if (length == 0) fail("invalid UTF-8");
        p_ += length;
    }

    const char* p_;
    const char* end_;
    const char* begin_;
};

} // namespace

std::map<std::string, std::string_view> members(std::string_view text, const std::vector<std::string_view>& wanted)
{
    // A byte order mark is tolerated, as full parsers do.
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    Scanner scan(text);
    std::map<std::string, std::string_view> found;
    scan.whitespace();
    if (scan.peek() != '{') {
        scan.value(0); // a malformed document is reported as such, before its shape
        scan.whitespace();
        if (!scan.atEnd()) scan.fail("unexpected text after the value");
        throw DecodingError("the hook payload is not a JSON object");
    }
    scan.expect('{');
    scan.whitespace();
    if (scan.peek() == '}') {
        scan.expect('}');
    } else {
        for (;;) {
            scan.whitespace();
            if (scan.peek() != '"') scan.fail("expected a member name");
            const char* keyStart = scan.position();
            const bool escaped = scan.string();
            std::string key(keyStart + 1, scan.position() - 1);
            if (escaped) key = Json::parse(std::string_view(keyStart, scan.position() - keyStart)).get<std::string>();
            scan.whitespace();
            scan.expect(':');
            scan.whitespace();
            const char* valueStart = scan.position();
            scan.value(1);
            if (std::find(wanted.begin(), wanted.end(), key) != wanted.end())
                found[key] = std::string_view(valueStart, scan.position() - valueStart);
            scan.whitespace();
            if (scan.peek() == ',') {
                scan.expect(',');
                continue;
            }
            scan.expect('}');
            break;
        }
    }
    scan.whitespace();
    if (!scan.atEnd()) scan.fail("unexpected text after the value");
    return found;
}

} // namespace skeldrin::json_scan

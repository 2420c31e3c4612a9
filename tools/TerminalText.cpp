#include "tools/TerminalText.h"

#include <cstdarg>
#include <vector>

namespace kelvo::kelvoctl {

namespace {

void appendEscape(std::string& out, const char* prefix, unsigned value, int digits) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += prefix;
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) out += kHex[(value >> shift) & 0xf];
}

// The length of the well-formed UTF-8 sequence at `at` and its code point; 0 when it is not one.
std::size_t utf8Sequence(std::string_view text, std::size_t at, unsigned& codePoint) {
    const auto lead = static_cast<unsigned char>(text[at]);
    std::size_t length = 0;
    unsigned minimum = 0;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
        codePoint = lead & 0x1fu;
        minimum = 0x80;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        codePoint = lead & 0x0fu;
        minimum = 0x800;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        codePoint = lead & 0x07u;
        minimum = 0x10000;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[at + i]);
        if ((next & 0xc0u) != 0x80u) return 0;
        codePoint = (codePoint << 6) | (next & 0x3fu);
    }
    if (codePoint < minimum || codePoint > 0x10ffff || (codePoint >= 0xd800 && codePoint <= 0xdfff))
        return 0;
    return length;
}

}  // namespace

std::string terminalSafe(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x80) {
            if ((byte < 0x20 && byte != '\t' && byte != '\n') || byte == 0x7f)
                appendEscape(out, "\\x", byte, 2);
            else
                out += static_cast<char>(byte);
            ++at;
            continue;
        }
        unsigned codePoint = 0;
        const std::size_t length = utf8Sequence(text, at, codePoint);
        if (length == 0) {
            appendEscape(out, "\\x", byte, 2);
            ++at;
        } else if (codePoint <= 0x9f) {
            appendEscape(out, "\\u", codePoint, 4);
            at += length;
        } else {
            out.append(text.substr(at, length));
            at += length;
        }
    }
    return out;
}

void say(std::FILE* stream, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (length < 0) {
        va_end(again);
        return;
    }
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, again);
    va_end(again);
    const std::string safe = terminalSafe({buffer.data(), static_cast<std::size_t>(length)});
    std::fwrite(safe.data(), 1, safe.size(), stream);
}

}  // namespace kelvo::kelvoctl

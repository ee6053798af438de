#include "Util/ML_WideText.h"

#include <algorithm>

namespace ML {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes one code point at text[i], advancing i; malformed input gives U+FFFD and skips one byte.
char32_t decodeUtf8(const std::string& text, size_t& i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    int extra = 0;
    char32_t cp = 0;
    if (lead < 0x80) {
        ++i;
        return lead;
    } else if ((lead & 0xE0) == 0xC0) {
        extra = 1;
        cp = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        extra = 2;
        cp = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        extra = 3;
        cp = lead & 0x07;
    } else {
        ++i;
        return kReplacement;
    }
    if (i + extra >= text.size()) {  // truncated sequence
        ++i;
        return kReplacement;
    }
    for (int k = 1; k <= extra; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            ++i;
            return kReplacement;
        }
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    static constexpr char32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMinimum[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++i;
        return kReplacement;
    }
    i += extra + 1;
    return cp;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = kReplacement;
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

}  // namespace

std::wstring widen(const std::string& utf8) {
    std::wstring out;
    out.reserve(utf8.size());
    for (size_t i = 0; i < utf8.size();) {
        const char32_t cp = decodeUtf8(utf8, i);
        if constexpr (sizeof(wchar_t) == 2) {
            if (cp >= 0x10000) {
                out += static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10));
                out += static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
                continue;
            }
        }
        out += static_cast<wchar_t>(cp);
    }
    return out;
}

std::string narrow(const std::wstring& wide) {
    std::string out;
    out.reserve(wide.size());
    for (size_t i = 0; i < wide.size(); ++i) {
        char32_t cp = static_cast<char32_t>(wide[i]);
        if constexpr (sizeof(wchar_t) == 2) {
            if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < wide.size()) {
                const char32_t low = static_cast<char32_t>(wide[i + 1]);
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                }
            }
        }
        appendUtf8(out, cp);
    }
    return out;
}

std::string displayPath(const std::filesystem::path& path) {
    std::string text = path.string();
    std::replace(text.begin(), text.end(), '\\', '/');
    return text;
}

}  // namespace ML

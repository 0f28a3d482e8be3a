// Text: Convert_UTF8_UCS and Convert_UCS_UTF8 against glibc's iconv and mbstowcs/wcstombs; HTTPUrlEscape and
// strToEscapedUri against a plain table-driven escape that writes the same bytes.
#include <iconv.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <memory>
#include <vector>

#include "bench.h"
#include "msplatform/stringUtils.h"
#include "msplatform/unicode.h"

namespace {

struct Texts {
    std::string utf8;          // the UTF-8 side, terminated by std::string
    std::vector<wchar_t> ucs;  // the same text in wide characters, terminated
};

std::shared_ptr<Texts> MakeTexts(const std::string& utf8) {
    auto texts = std::make_shared<Texts>();
    texts->utf8 = utf8;
    texts->ucs.resize(utf8.size() + 1);
    Convert_UTF8_UCS(reinterpret_cast<const unsigned char*>(texts->utf8.c_str()), texts->ucs.data());
    return texts;
}

// Converts the whole of `in` with an open descriptor; gives the bytes written.
size_t Iconv(iconv_t cd, const void* in, size_t inBytes, void* out, size_t outBytes) {
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    char* source = static_cast<char*>(const_cast<void*>(in));
    char* destination = static_cast<char*>(out);
    const size_t room = outBytes;
    if (iconv(cd, &source, &inBytes, &destination, &outBytes) == static_cast<size_t>(-1) || inBytes != 0)
        mspb::Fail("iconv stopped short");
    return room - outBytes;
}

void RegisterConversions() {
    // mbstowcs and wcstombs follow the locale; the library's conversions do not.
    if (!setlocale(LC_CTYPE, "C.UTF-8")) mspb::Fail("no C.UTF-8 locale");
    const size_t size = mspb::Size(1 << 20, 256);
    const std::string sizeName = mspb::SizeName(size);
    struct Input {
        std::string name;
        std::shared_ptr<Texts> texts;
    };
    const Input inputs[] = {{sizeName + "_ascii", MakeTexts(mspb::AsciiText(size))},
                            {sizeName + "_mixed", MakeTexts(mspb::MixedText(size))}};

    for (const Input& input : inputs) {
        auto texts = input.texts;
        const size_t units = wcslen(texts->ucs.data());
        const size_t bytes = texts->utf8.size();

        // Both sides must agree before their speed means anything.
        {
            std::vector<wchar_t> wide(bytes + 1);
            iconv_t cd = iconv_open("WCHAR_T", "UTF-8");
            if (Iconv(cd, texts->utf8.data(), bytes, wide.data(), wide.size() * sizeof(wchar_t)) !=
                    units * sizeof(wchar_t) ||
                memcmp(wide.data(), texts->ucs.data(), units * sizeof(wchar_t)) != 0)
                mspb::Fail("iconv decodes otherwise");
            iconv_close(cd);
            std::vector<unsigned char> narrow(units * 3 + 1);
            if (Convert_UCS_UTF8(texts->ucs.data(), narrow.data()) != static_cast<int>(bytes) ||
                memcmp(narrow.data(), texts->utf8.data(), bytes) != 0)
                mspb::Fail("Convert_UCS_UTF8 does not give the text back");
        }

        mspb::Add("Convert_UTF8_UCS", input.name, "msplatform", [texts, bytes](benchmark::State& state) {
            std::vector<wchar_t> out(bytes + 1);
            const unsigned char* in = reinterpret_cast<const unsigned char*>(texts->utf8.c_str());
            for (auto _ : state) {
                benchmark::DoNotOptimize(Convert_UTF8_UCS(in, out.data()));
                benchmark::ClobberMemory();
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
        });
        mspb::Add("Convert_UTF8_UCS", input.name, "iconv", [texts, bytes](benchmark::State& state) {
            std::vector<wchar_t> out(bytes + 1);
            iconv_t cd = iconv_open("WCHAR_T", "UTF-8");
            for (auto _ : state) {
                benchmark::DoNotOptimize(
                    Iconv(cd, texts->utf8.data(), bytes, out.data(), out.size() * sizeof(wchar_t)));
                benchmark::ClobberMemory();
            }
            iconv_close(cd);
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
        });
        mspb::Add("Convert_UTF8_UCS", input.name, "mbstowcs", [texts, bytes](benchmark::State& state) {
            std::vector<wchar_t> out(bytes + 1);
            for (auto _ : state) {
                benchmark::DoNotOptimize(mbstowcs(out.data(), texts->utf8.c_str(), out.size()));
                benchmark::ClobberMemory();
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
        });

        mspb::Add("Convert_UCS_UTF8", input.name, "msplatform", [texts, units](benchmark::State& state) {
            std::vector<unsigned char> out(units * 3 + 1);
            for (auto _ : state) {
                benchmark::DoNotOptimize(Convert_UCS_UTF8(texts->ucs.data(), out.data()));
                benchmark::ClobberMemory();
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * texts->utf8.size()));
        });
        mspb::Add("Convert_UCS_UTF8", input.name, "iconv", [texts, units](benchmark::State& state) {
            std::vector<unsigned char> out(units * 3 + 1);
            iconv_t cd = iconv_open("UTF-8", "WCHAR_T");
            for (auto _ : state) {
                benchmark::DoNotOptimize(
                    Iconv(cd, texts->ucs.data(), units * sizeof(wchar_t), out.data(), out.size()));
                benchmark::ClobberMemory();
            }
            iconv_close(cd);
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * texts->utf8.size()));
        });
        mspb::Add("Convert_UCS_UTF8", input.name, "wcstombs", [texts, units](benchmark::State& state) {
            std::vector<char> out(units * 3 + 1);
            for (auto _ : state) {
                benchmark::DoNotOptimize(wcstombs(out.data(), texts->ucs.data(), out.size()));
                benchmark::ClobberMemory();
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * texts->utf8.size()));
        });
    }
}

// The plain escape: one table entry per byte value, the text that byte becomes, copied out byte by byte.
struct EscapeTable {
    char text[256][8];
};

// HTTPUrlEscape's rule: letters, digits and "/@;:=+$-_.*" stand for themselves, the rest becomes "%XX".
EscapeTable HttpTable() {
    EscapeTable table{};
    for (int c = 1; c < 256; ++c) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           strchr("/@;:=+$-_.*", c) != nullptr;
        if (plain)
            table.text[c][0] = static_cast<char>(c);
        else
            snprintf(table.text[c], sizeof table.text[c], "%%%02X", c);
    }
    return table;
}

// strToEscapedUri's rule on one-byte text: each byte is a Latin-1 character, encoded in UTF-8; letters,
// digits and "./:_?" stand for themselves, every other byte of the encoding becomes "%x" or "%xx".
EscapeTable UriTable() {
    EscapeTable table{};
    for (int c = 1; c < 256; ++c) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           strchr("./:_?", c) != nullptr;
        if (plain)
            table.text[c][0] = static_cast<char>(c);
        else if (c < 0x80)
            snprintf(table.text[c], sizeof table.text[c], "%%%x", c);
        else
            snprintf(table.text[c], sizeof table.text[c], "%%%x%%%x", 0xC0 | (c >> 6), 0x80 | (c & 0x3F));
    }
    return table;
}

// Writes exactly the escaped text and its terminator, nothing behind them; gives the length.
size_t TableEscape(const EscapeTable& table, const char* in, char* out) {
    char* const start = out;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(in); *p; ++p)
        for (const char* t = table.text[*p]; *t; ++t) *out++ = *t;
    *out = 0;
    return static_cast<size_t>(out - start);
}

void RegisterEscapes() {
    const size_t size = mspb::Size(1 << 20, 256);
    const std::string input = mspb::SizeName(size) + "_paths";
    auto path = std::make_shared<std::string>(mspb::PathText(size));
    auto http = std::make_shared<EscapeTable>(HttpTable());
    auto uri = std::make_shared<EscapeTable>(UriTable());

    const int httpLength = HTTPUrlEscapeLength(path->c_str());
    const int uriSize = strUtf8Len(path->c_str(), 0, 1);
    {
        std::vector<char> ours(static_cast<size_t>(httpLength)), plain(static_cast<size_t>(httpLength));
        if (HTTPUrlEscape(ours.data(), path->c_str()) != httpLength ||
            TableEscape(*http, path->c_str(), plain.data()) + 1 != static_cast<size_t>(httpLength) ||
            memcmp(ours.data(), plain.data(), static_cast<size_t>(httpLength)) != 0)
            mspb::Fail("the plain HTTP escape writes other bytes");
        std::vector<char> uriOurs(static_cast<size_t>(uriSize)), uriPlain(static_cast<size_t>(uriSize));
        const int length = strToEscapedUri(uriOurs.data(), path->c_str(), uriSize, 0, nullptr);
        if (TableEscape(*uri, path->c_str(), uriPlain.data()) != static_cast<size_t>(length) ||
            memcmp(uriOurs.data(), uriPlain.data(), static_cast<size_t>(length) + 1) != 0)
            mspb::Fail("the plain URI escape writes other bytes");
    }

    mspb::Add("HTTPUrlEscape", input, "msplatform", [path, httpLength](benchmark::State& state) {
        std::vector<char> out(static_cast<size_t>(httpLength));
        for (auto _ : state) {
            benchmark::DoNotOptimize(HTTPUrlEscape(out.data(), path->c_str()));
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * path->size()));
    });
    mspb::Add("HTTPUrlEscape", input, "plain_table", [path, http, httpLength](benchmark::State& state) {
        std::vector<char> out(static_cast<size_t>(httpLength));
        for (auto _ : state) {
            benchmark::DoNotOptimize(TableEscape(*http, path->c_str(), out.data()));
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * path->size()));
    });
    mspb::Add("strToEscapedUri", input, "msplatform", [path, uriSize](benchmark::State& state) {
        std::vector<char> out(static_cast<size_t>(uriSize));
        for (auto _ : state) {
            benchmark::DoNotOptimize(strToEscapedUri(out.data(), path->c_str(), uriSize, 0, nullptr));
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * path->size()));
    });
    mspb::Add("strToEscapedUri", input, "plain_table", [path, uri, uriSize](benchmark::State& state) {
        std::vector<char> out(static_cast<size_t>(uriSize));
        for (auto _ : state) {
            benchmark::DoNotOptimize(TableEscape(*uri, path->c_str(), out.data()));
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * path->size()));
    });
}

void RegisterAll() {
    RegisterConversions();
    RegisterEscapes();
}

mspb::Registrar registrar(RegisterAll);

}  // namespace

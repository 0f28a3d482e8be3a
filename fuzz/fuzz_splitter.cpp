// Both splitters and the delimiter test over any range of any text. The first bytes choose the delimiter
// (one to three bytes) and the range; the rest is the text. The pieces must tile the range exactly: each
// piece inside it, in order, one delimiter between two pieces; and they must be those of the model of the
// splitters' rules (tests/xml/xmlReference.h), quotes included.
#include "msplatform/xmlParser.h"

#include "fuzz.h"
#include "xml/xmlReference.h"

namespace {

void CheckPieces(parser_result* r, const char* from, const char* to, const char* delimiter, int dlen,
                 const std::vector<xmlref::Piece>& model) {
    FUZZ_CHECK(r->first != nullptr);
    size_t i = 0;
    for (parser_field* f = r->first; f; f = f->next, ++i)
        FUZZ_CHECK(i < model.size() && f->text == model[i].first && f->length == model[i].second);
    FUZZ_CHECK(i == model.size());
    int count = 0;
    const char* at = from;
    for (parser_field* f = r->first; f; f = f->next) {
        ++count;
        FUZZ_CHECK(f->text == at && f->length >= 0 && f->text + f->length <= to);
        at = f->text + f->length;
        if (f->next) {
            FUZZ_CHECK(memcmp(at, delimiter, static_cast<size_t>(dlen)) == 0);
            at += dlen;
        } else {
            FUZZ_CHECK(r->last == f);
        }
    }
    FUZZ_CHECK(at == (from < to ? to : from));
    FUZZ_CHECK(count == r->count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3 || size > 1 << 16) return 0;
    const int dlen = data[0] % 3 + 1;
    if (size < static_cast<size_t>(3 + dlen)) return 0;
    mspfuzz::Block<char> delimiter = mspfuzz::Exact(data + 3, static_cast<size_t>(dlen));
    const size_t textSize = size - 3 - static_cast<size_t>(dlen);
    mspfuzz::Block<char> text = mspfuzz::Exact(data + 3 + dlen, textSize);
    const int n = static_cast<int>(textSize);
    const int start = n ? data[1] % (n + 1) : 0;
    const int end = n ? data[2] % (n + 1) : 0;
    char* base = text.get();

    parser_result* plain = xml_ParseString(base, start, end, delimiter.get(), dlen);
    CheckPieces(plain, base + start, base + (end > start ? end : start), delimiter.get(), dlen,
                xmlref::Split(base, start, end, delimiter.get(), dlen, false));
    xml_DestructParserResults(plain);

    const int length = end - start;
    parser_result* quoted = xml_ParseStringAdv(base, start, length, delimiter.get(), dlen);
    CheckPieces(quoted, base + start, base + (length > 0 ? end : start), delimiter.get(), dlen,
                xmlref::Split(base, start, end, delimiter.get(), dlen, true));
    xml_DestructParserResults(quoted);

    for (int at = start; at < end; ++at) {
        const int hit = xml_IsDelimiter(base, at, end, delimiter.get(), dlen);
        FUZZ_CHECK(hit == (at + dlen <= end && memcmp(base + at, delimiter.get(), dlen) == 0 ? 1 : 0));
    }

    parser_result* none = xml_ParseString(nullptr, 0, n, delimiter.get(), dlen);
    FUZZ_CHECK(none->first == nullptr && none->count == 0);
    xml_DestructParserResults(none);
    return 0;
}

// XML: xml_ParseXML + xml_ProcessXMLNodeList + xml_DestructXMLNodeList on format tables, against pugixml's
// in-place parse, expat and libxml2 on the same bytes.
#include <string.h>

#include <memory>
#include <vector>

#include "bench.h"
#include "msplatform/xmlParser.h"

#ifdef MSPB_HAVE_PUGIXML
#include <pugixml.hpp>
#endif
#ifdef MSPB_HAVE_EXPAT
#include <expat.h>
#endif
#ifdef MSPB_HAVE_LIBXML2
#include <libxml/parser.h>
#include <libxml/tree.h>
#endif

namespace {

const char kOperation[] = "xml_ParseXML+ProcessXMLNodeList";

// Start nodes of a parse: one per element, comparable with a peer's element count.
int CountElements(std::vector<char>& text) {
    xml_node* first = xml_ParseXML(text.data(), 0, static_cast<int>(text.size()));
    if (xml_ProcessXMLNodeList(first) != 0) mspb::Fail("format table does not balance");
    int count = 0;
    for (xml_node* n = first; n; n = n->next) count += n->isStart != 0;
    xml_DestructXMLNodeList(first);
    return count;
}

#ifdef MSPB_HAVE_PUGIXML
int CountElements(const pugi::xml_node& node) {
    int count = 0;
    for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling())
        if (child.type() == pugi::node_element) count += 1 + CountElements(child);
    return count;
}
#endif

#ifdef MSPB_HAVE_EXPAT
void XMLCALL ExpatStart(void* data, const XML_Char*, const XML_Char**) {
    ++*static_cast<int*>(data);
}
void XMLCALL ExpatEnd(void*, const XML_Char*) {}
#endif

void RegisterAll() {
    for (size_t size : {mspb::Size(4 << 10, 512), mspb::Size(64 << 10, 1024), mspb::Size(1 << 20, 2048)}) {
        auto text = std::make_shared<std::vector<char>>();
        {
            const std::string table = mspb::FormatTable(size);
            text->assign(table.begin(), table.end());
        }
        const int elements = CountElements(*text);
        const std::string input = mspb::SizeName(size);

        mspb::Add(kOperation, input, "msplatform", [text](benchmark::State& state) {
            for (auto _ : state) {
                xml_node* first = xml_ParseXML(text->data(), 0, static_cast<int>(text->size()));
                benchmark::DoNotOptimize(xml_ProcessXMLNodeList(first));
                xml_DestructXMLNodeList(first);
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
        });

#ifdef MSPB_HAVE_PUGIXML
        {
            pugi::xml_document document;
            std::vector<char> copy(*text);
            if (!document.load_buffer_inplace(copy.data(), copy.size()))
                mspb::Fail("pugixml refuses the format table");
            if (CountElements(document) != elements) mspb::Fail("pugixml counts other elements");
        }
        mspb::Add(kOperation, input, "pugixml", [text](benchmark::State& state) {
            // The in-place parse writes into its buffer, so it gets fresh copies, made with the clock
            // stopped. A pool of them keeps the stops rare on small inputs while the pool still fits the
            // cache.
            const size_t copies = std::max<size_t>(1, (256u << 10) / text->size());
            std::vector<std::vector<char>> pool(copies, *text);
            size_t used = 0;
            for (auto _ : state) {
                if (used == copies) {
                    state.PauseTiming();
                    for (auto& copy : pool) memcpy(copy.data(), text->data(), text->size());
                    used = 0;
                    state.ResumeTiming();
                }
                pugi::xml_document document;
                benchmark::DoNotOptimize(document.load_buffer_inplace(pool[used].data(), text->size()));
                ++used;
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
        });
#endif

#ifdef MSPB_HAVE_EXPAT
        {
            int count = 0;
            XML_Parser parser = XML_ParserCreate(nullptr);
            XML_SetUserData(parser, &count);
            XML_SetElementHandler(parser, ExpatStart, ExpatEnd);
            if (XML_Parse(parser, text->data(), static_cast<int>(text->size()), 1) != XML_STATUS_OK)
                mspb::Fail("expat refuses the format table");
            XML_ParserFree(parser);
            if (count != elements) mspb::Fail("expat counts other elements");
        }
        mspb::Add(kOperation, input, "expat", [text](benchmark::State& state) {
            int count = 0;
            for (auto _ : state) {
                XML_Parser parser = XML_ParserCreate(nullptr);
                XML_SetUserData(parser, &count);
                XML_SetElementHandler(parser, ExpatStart, ExpatEnd);
                benchmark::DoNotOptimize(XML_Parse(parser, text->data(), static_cast<int>(text->size()), 1));
                XML_ParserFree(parser);
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
        });
#endif

#ifdef MSPB_HAVE_LIBXML2
        xmlInitParser();
        {
            xmlDocPtr document =
                xmlReadMemory(text->data(), static_cast<int>(text->size()), nullptr, nullptr, 0);
            if (!document) mspb::Fail("libxml2 refuses the format table");
            xmlFreeDoc(document);
        }
        mspb::Add(kOperation, input, "libxml2", [text](benchmark::State& state) {
            for (auto _ : state) {
                xmlDocPtr document =
                    xmlReadMemory(text->data(), static_cast<int>(text->size()), nullptr, nullptr, 0);
                benchmark::DoNotOptimize(document);
                xmlFreeDoc(document);
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text->size()));
        });
#endif
        (void)elements;
    }
}

mspb::Registrar registrar(RegisterAll);

}  // namespace

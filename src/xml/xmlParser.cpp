// The node list and its tree links: one node per tag, cut out of the caller's text in place.
#include "msplatform/xmlParser.h"

#include <limits.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "xml/internal.h"

namespace {

const char* findByte(const char* from, long long length, char byte) {
    if (length <= 0) return nullptr;
    return static_cast<const char*>(::memchr(from, byte, static_cast<size_t>(length)));
}

const char* findLastByte(const char* from, long long length, char byte) {
    if (length <= 0) return nullptr;
    return static_cast<const char*>(::memrchr(from, byte, static_cast<size_t>(length)));
}

// Nodes are handed out from blocks, a few hundred at most to a block, so that a parse makes one allocation
// per block instead of one per node. Each node's slot names its block and the block counts the nodes still
// out: nodes can still be released one by one along next, from any node on, and a block goes with its last
// node. Parts of one list are released on any threads, so the count drops atomically, once per run of
// nodes from one block.
struct NodeBlock {
    size_t live;  // nodes not yet released; counted up by the parse, before the list is shared
};

struct NodeSlot {
    NodeBlock* block;
    xml_node node;
};

static_assert(sizeof(NodeBlock) % alignof(NodeSlot) == 0, "slots follow the block header unpadded");

NodeSlot* slotOf(xml_node* node) {
    return reinterpret_cast<NodeSlot*>(reinterpret_cast<char*>(node) - offsetof(NodeSlot, node));
}

// The last release frees the block: after (acquire) every other thread's reads of its nodes, which come
// before their own releases (release).
void releaseNodes(NodeBlock* block, size_t count) {
    if (__atomic_sub_fetch(&block->live, count, __ATOMIC_ACQ_REL) == 0) ::free(block);
}

class NodeAllocator {
public:
    // Sized from the text, so that a small document takes one block: a tag and its text rarely take fewer
    // than 16 bytes. Longer ones double up to the largest block.
    explicit NodeAllocator(long long textLength)
        : blockNodes_(static_cast<size_t>(
              std::clamp<long long>(textLength / 16, kSmallestBlockNodes, kLargestBlockNodes))) {}

    xml_node* make(char* name, int nameLength, char* prefix, int prefixLength, bool isStart, char* position) {
        if (free_ == end_ && !grow()) return nullptr;
        NodeSlot* slot = free_++;
        slot->block = block_;
        ++block_->live;
        xml_node* node = &slot->node;
        node->name = name;
        node->nameLength = nameLength;
        node->prefix = prefix;
        node->prefixLength = prefixLength;
        node->isStart = isStart ? ~0 : 0;
        node->isEmpty = 0;
        node->position = position;
        node->next = nullptr;
        node->parent = nullptr;
        node->peer = nullptr;
        node->closingTag = nullptr;
        node->startingTag = nullptr;
        return node;
    }

private:
    static constexpr long long kSmallestBlockNodes = 16;
    static constexpr long long kLargestBlockNodes = 512;

    bool grow() {
        void* memory = xmlparser::allocate(sizeof(NodeBlock) + blockNodes_ * sizeof(NodeSlot));
        if (!memory) return false;
        block_ = static_cast<NodeBlock*>(memory);
        block_->live = 0;
        free_ = reinterpret_cast<NodeSlot*>(block_ + 1);
        end_ = free_ + blockNodes_;
        blockNodes_ = std::min<size_t>(blockNodes_ * 2, kLargestBlockNodes);
        return true;
    }

    NodeBlock* block_ = nullptr;
    NodeSlot* free_ = nullptr;
    NodeSlot* end_ = nullptr;
    size_t blockNodes_;
};

// What a byte means to the scan of a tag's first word.
enum ByteKind : unsigned char { kPlain, kWordEnd, kColon, kNameEnd };

struct ByteKinds {
    unsigned char kind[256];
};

constexpr ByteKinds makeByteKinds() {
    ByteKinds table{};
    table.kind[static_cast<unsigned char>(' ')] = kWordEnd;
    table.kind[static_cast<unsigned char>('>')] = kWordEnd;
    table.kind[static_cast<unsigned char>('<')] = kWordEnd;  // only ever met behind a candidate
    table.kind[static_cast<unsigned char>(':')] = kColon;
    table.kind[static_cast<unsigned char>('/')] = kNameEnd;
    table.kind[static_cast<unsigned char>('\r')] = kNameEnd;
    table.kind[static_cast<unsigned char>('\n')] = kNameEnd;
    return table;
}

constexpr ByteKinds kByteKinds = makeByteKinds();

unsigned char kindOf(char byte) {
    return kByteKinds.kind[static_cast<unsigned char>(byte)];
}

struct NodeList {
    explicit NodeList(long long textLength) : nodes(textLength) {}

    NodeAllocator nodes;
    xml_node* first = nullptr;
    xml_node* last = nullptr;

    void append(xml_node* node) {
        if (first)
            last->next = node;
        else
            first = node;
        last = node;
    }
};

// Turns one candidate, the bytes behind a "<" up to the next "<", into no node, one node, or the two nodes of
// an empty tag. Of the cuts at ">", " " and ":" only the first pieces matter (and, for a start node's
// position, the last ">"), so they are found by one short scan of the first word and two searches for ">".
// `endsAtLt`: a "<" stands at candidate[length]. False when a node could not be allocated.
bool addCandidate(NodeList& list, char* candidate, long long length, bool endsAtLt) {
    if (length < 1 || candidate[0] == '?') return true;
    const bool closing = candidate[0] == '/';
    char* const tag = closing ? candidate + 1 : candidate;
    char* const tagEnd = candidate + length;

    // The first word ends at the first blank or ">"; its first two colons bound prefix and name. The same
    // scan notes the first "/", CR or LF that can end the name: behind the name's first byte, which is the
    // tag's first byte without a colon, or the byte behind the first colon with one.
    char* wordEnd = tag;
    char* colon = nullptr;
    char* secondColon = nullptr;
    char* nameEndNoPrefix = nullptr;    // where such a byte ends a name without prefix
    char* nameEndAfterColon = nullptr;  // where one ends a name behind the first colon
    for (;; ++wordEnd) {
        // Plain bytes are passed without a bound test where the "<" behind the candidate stops the scan.
        if (endsAtLt) {
            while (kindOf(*wordEnd) == kPlain) ++wordEnd;
        } else {
            while (wordEnd < tagEnd && kindOf(*wordEnd) == kPlain) ++wordEnd;
        }
        if (wordEnd == tagEnd) break;
        const unsigned char kind = kindOf(*wordEnd);
        if (kind == kWordEnd) break;
        if (kind == kColon) {
            if (!colon)
                colon = wordEnd;
            else if (!secondColon)
                secondColon = wordEnd;
        } else if (!colon) {
            if (!nameEndNoPrefix && wordEnd > tag) nameEndNoPrefix = wordEnd;
        } else if (!nameEndAfterColon && wordEnd > colon + 1) {
            nameEndAfterColon = wordEnd;
        }
    }
    const char* gt = wordEnd < tagEnd && *wordEnd == '>' ? wordEnd : findByte(wordEnd, tagEnd - wordEnd, '>');
    const char* pieceEnd = gt ? gt : tagEnd;

    bool empty = false;
    char* position = candidate;  // a closing node: its "/"; a start node without any ">": its first byte
    if (!closing) {
        if (pieceEnd > tag && pieceEnd[-1] == '/') empty = true;
        if (gt) position = const_cast<char*>(findLastByte(gt, tagEnd - gt, '>')) + 1;
    }

    char* prefix = nullptr;
    long long prefixLength = 0;
    char* name = tag;
    char* nameEnd = wordEnd;
    if (colon) {
        prefix = tag;
        prefixLength = colon - tag;
        name = colon + 1;
        nameEnd = secondColon ? secondColon : wordEnd;
    }
    // The first byte is never looked at, so a name may begin with "/" or a line end.
    char* const earlyEnd = colon ? nameEndAfterColon : nameEndNoPrefix;
    if (earlyEnd && earlyEnd < nameEnd) {
        if (*earlyEnd == '/') empty = true;
        nameEnd = earlyEnd;
    }
    const long long nameLength = nameEnd - name;
    if (nameLength == 0) return true;

    xml_node* node = list.nodes.make(name, static_cast<int>(nameLength), prefix,
                                     static_cast<int>(prefixLength), !closing, position);
    if (!node) return false;
    list.append(node);
    if (empty) {
        node->isEmpty = ~0;
        // Stands for the closing tag that the text does not have.
        xml_node* closer = list.nodes.make(name, static_cast<int>(nameLength), prefix,
                                           static_cast<int>(prefixLength), false, position);
        if (!closer) return false;
        list.append(closer);
    }
    return true;
}

bool sameName(const xml_node* a, const xml_node* b) {
    if (a->nameLength != b->nameLength) return false;
    if (a->nameLength <= 0 || a->name == b->name) return true;
    if (!a->name || !b->name) return false;
    return ::memcmp(a->name, b->name, static_cast<size_t>(a->nameLength)) == 0;
}

// Steps along next links and ends the walk where a list loops back on itself (Brent's cycle test: compare
// each step with a mark that moves to the current node at every power of two). A list from xml_ParseXML never
// loops; a damaged one must still not hold a walk forever.
class Walk {
public:
    explicit Walk(xml_node* first) : mark_(first) {}

    xml_node* after(const xml_node* node) {
        xml_node* next = node->next;
        if (next == mark_) return nullptr;
        if (++steps_ == span_) {
            mark_ = next;
            span_ *= 2;
            steps_ = 0;
        }
        return next;
    }

private:
    xml_node* mark_;
    unsigned long steps_ = 0;
    unsigned long span_ = 1;
};

struct StackEntry {
    void* value;
    StackEntry* below;
};

}  // namespace

xml_node* xml_ParseXML(char* text, int start, int end) {
    if (!text) return nullptr;
    NodeList list(static_cast<long long>(end) - start);
    // The candidates are the pieces of the cut at "<", taken one by one as memchr finds them.
    char* candidate = text + start;
    char* const rangeEnd = text + end;
    for (;;) {
        char* lt = candidate < rangeEnd ? const_cast<char*>(findByte(candidate, rangeEnd - candidate, '<'))
                                        : nullptr;
        const long long length = lt ? lt - candidate : (candidate < rangeEnd ? rangeEnd - candidate : 0);
        // `lt` lies inside the range: the unbounded part of the candidate's scan stops at it.
        if (!addCandidate(list, candidate, length, lt != nullptr)) {
            // A list with nodes missing would read as another document: give none.
            xml_DestructXMLNodeList(list.first);
            return nullptr;
        }
        if (!lt) break;
        candidate = lt + 1;
    }
    return list.first;
}

int xml_ProcessXMLNodeList(xml_node* first) {
    // The stack of open start nodes is kept in their parent links: a start node's parent is the top of the
    // stack when it is pushed, which is the entry below it. So matching allocates nothing and, whatever way
    // the walk ends, leaves no entry behind.
    xml_node* top = nullptr;
    int result = 0;
    Walk walk(first);
    for (xml_node* node = first; node; node = walk.after(node)) {
        if (node->isStart) {
            node->parent = top;
            top = node;
            continue;
        }
        if (!top) {
            result = -1;
            break;
        }
        xml_node* open = top;
        top = open->parent;
        if (!sameName(open, node)) {
            result = -2;
            break;
        }
        if (node->next && node->next->isStart) open->peer = node->next;
        node->startingTag = open;
        open->closingTag = node;
    }
    if (top) result = -3;
    return result;
}

int xml_ReadInnerXML(xml_node* node, char** innerText) {
    // Only the count of open start nodes above the given one matters: the pop that empties the stack is the
    // one that pops the given node. If the names then differ, nothing later can match.
    if (!node || !node->isStart) return 0;
    unsigned long open = 1;
    Walk walk(node);
    for (xml_node* n = walk.after(node); n; n = walk.after(n)) {
        if (n->isStart) {
            ++open;
            continue;
        }
        if (--open > 0) continue;
        if (!sameName(node, n)) return 0;
        if (innerText) *innerText = node->position;
        const ptrdiff_t length = n->position - node->position - 1;
        if (length < 0) return 0;
        return length > INT_MAX ? INT_MAX : static_cast<int>(length);
    }
    return 0;
}

void xml_DestructXMLNodeList(xml_node* first) {
    while (first) {
        NodeBlock* const block = slotOf(first)->block;
        size_t count = 0;
        do {
            first = first->next;
            ++count;
        } while (first && slotOf(first)->block == block);
        releaseNodes(block, count);
    }
}

// The stack is for callers: nothing in the parser uses it, since matching keeps its stack in the nodes.
void xml_CreateStack(void** stack) {
    if (stack) *stack = nullptr;
}

void xml_PushStack(void** stack, void* value) {
    if (!stack) return;
    StackEntry* entry = static_cast<StackEntry*>(xmlparser::allocate(sizeof(StackEntry)));
    if (!entry) return;  // the stack stays as it was
    entry->value = value;
    entry->below = static_cast<StackEntry*>(*stack);
    *stack = entry;
}

void* xml_PeekStack(void** stack) {
    if (!stack || !*stack) return nullptr;
    return static_cast<StackEntry*>(*stack)->value;
}

void* xml_PopStack(void** stack) {
    if (!stack || !*stack) return nullptr;
    StackEntry* entry = static_cast<StackEntry*>(*stack);
    void* value = entry->value;
    *stack = entry->below;
    ::free(entry);
    return value;
}

void xml_ClearStack(void** stack) {
    if (!stack) return;
    while (*stack) xml_PopStack(stack);
}

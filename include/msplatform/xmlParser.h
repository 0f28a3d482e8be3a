// The in-place XML parser.
//
// Nothing here copies, terminates or writes the caller's text: names, values and pieces are pointers into the
// caller's buffer with a length beside them, and that buffer must stay alive and unchanged for as long as
// they are read. The parser is not validating and reports no syntax error: it cuts the text at "<", ">", " "
// and ":", and whatever falls out is a tag.
//
// Ownership: every list handed out (parser_result, xml_node, xml_attribute) is allocated by the function that
// makes it and is the caller's to release with the matching xml_Destruct* function, never with free. Nodes
// share their allocations: a node the caller made itself must not go into a list that
// xml_DestructXMLNodeList releases. None of those releases touches the text buffer. A node list cut into
// parts may have its parts released on different threads at once.
#pragma once

#include "msplatform/export.h"

// ---- Delimiter splitter ----------------------------------------------------------------------------------

// One piece of a split: a range of the caller's buffer, not terminated, the delimiter not included.
struct parser_field {
    char* text;          // start of the piece in the caller's buffer
    int length;          // bytes in the piece; may be 0
    parser_field* next;  // next piece in buffer order; null at the last
};

// The pieces of one split, in buffer order. There is always one piece more than delimiters found.
struct parser_result {
    parser_field* first;  // null only for a null buffer (and xml_ParseStringAdv's with a positive length)
    parser_field* last;   // valid only when first is not null
    int count;            // number of pieces
};

// Splits buffer[start, end) at every occurrence of the delimiter (delimiterLength bytes, not terminated).
// Quotes are plain bytes. Never returns null; a null buffer gives a result without pieces.
MSP_EXPORT parser_result* xml_ParseString(char* buffer, int start, int end, char* delimiter,
                                          int delimiterLength);

// Splits buffer[start, start + length) like xml_ParseString, but does not cut inside quoted text. The first
// quote character met (" or ') is the only one that quotes for the rest of the call; quotes stay in the
// pieces. Never returns null. A null buffer is not tested for: with a length of 0 or less it gives the one
// empty piece of any empty range, with a null text; with a positive length, a result without pieces.
MSP_EXPORT parser_result* xml_ParseStringAdv(char* buffer, int start, int length, char* delimiter,
                                             int delimiterLength);

// 1 if the delimiter stands at buffer[position] and ends at or before the end offset, else 0.
MSP_EXPORT int xml_IsDelimiter(char* buffer, int position, int end, char* delimiter, int delimiterLength);

// Releases a result of either splitter with all its pieces.
MSP_EXPORT void xml_DestructParserResults(parser_result* result);

// ---- Node list and tree ----------------------------------------------------------------------------------

// One tag, in a singly linked list in document order. An empty tag (<a/>) gives two nodes: a start node with
// isEmpty set and a closing node, both with the same position. The tree links are set by
// xml_ProcessXMLNodeList and may stay null where tags do not balance.
struct xml_node {
    char* name;             // local name in the buffer, not terminated
    int nameLength;         // bytes in the name; never 0
    char* prefix;           // namespace prefix in the buffer; null if none
    int prefixLength;       // bytes in the prefix; 0 if none (also with a non-null prefix, as in <:a>)
    int isStart;            // all bits set in a start node, 0 in a closing node
    int isEmpty;            // all bits set in the start node of an empty tag, else 0
    char* position;         // start node: behind the last ">" before the next "<" (which may stand in the
                            // element's text); closing node: its "/"
    xml_node* next;         // next node in document order; null at the end
    xml_node* parent;       // start node: enclosing start node; null at top level and in closing nodes
    xml_node* peer;         // start node: the start node right behind its closing node; else null
    xml_node* closingTag;   // start node: its closing node
    xml_node* startingTag;  // closing node: its start node
};

// Makes the node list of text[start, end). Returns the first node, or null for a null text or a text that
// yields no node. Release with xml_DestructXMLNodeList.
MSP_EXPORT xml_node* xml_ParseXML(char* text, int start, int end);

// Matches start and closing nodes by name (prefixes aside) and sets parent, peer, closingTag and startingTag.
// 0: balanced. -1: a closing node with no start node open. -2: a closing node whose name differs from the
// last open start node. -3: start nodes still open at the end of the walk. The links set before the walk
// stopped remain; the list stays usable and the caller's to release.
MSP_EXPORT int xml_ProcessXMLNodeList(xml_node* first);

// Finds the raw text between a start node and its closing node, mark-up and entities as they are. Stores its
// start in *innerText and returns its length; returns 0 without storing when no closing node matches.
MSP_EXPORT int xml_ReadInnerXML(xml_node* node, char** innerText);

// Releases the nodes from first on by their next links. The text buffer is not read.
MSP_EXPORT void xml_DestructXMLNodeList(xml_node* first);

// A stack of pointers: a void* handle to the top entry, null when empty. Entries are allocated on push and
// released on pop. Peek and Pop give null on an empty stack.
MSP_EXPORT void xml_CreateStack(void** stack);
MSP_EXPORT void xml_PushStack(void** stack, void* value);
MSP_EXPORT void* xml_PeekStack(void** stack);
MSP_EXPORT void* xml_PopStack(void** stack);
MSP_EXPORT void xml_ClearStack(void** stack);

// ---- Attributes and entities -----------------------------------------------------------------------------

// One blank-separated token behind a tag's name, as pointers into the buffer. A token without "=" has name
// and value over the same text; the value keeps its quotes.
struct xml_attribute {
    char* name;           // local name in the buffer, not terminated
    int nameLength;       // bytes in the name; may be 0
    char* prefix;         // namespace prefix in the buffer; null if none
    int prefixLength;     // bytes in the prefix; 0 if none
    char* value;          // value in the buffer, quotes included
    int valueLength;      // bytes in the value; may be 0
    xml_attribute* next;  // the attribute to the left of this one in the tag; null at the leftmost
};

// Reads the attributes of a start node from the tag text in front of its position, last attribute first.
// Null when the tag has none. The node must have a "<" somewhere in front of its position (every node does,
// but one made from text in front of the first "<"). Release with xml_DestructXMLAttributeList.
MSP_EXPORT xml_attribute* xml_GetXMLAttributes(xml_node* node);
MSP_EXPORT void xml_DestructXMLAttributeList(xml_attribute* first);

// Decodes &quot; &apos; &amp; &lt; &gt; in a terminated text, in place and in one pass. Returns the new
// length.
MSP_EXPORT int xml_InPlaceXmlUnEscape(char* text);

// Length of the escaped form of a terminated text, terminator not counted. A destination for xml_XmlEscape
// needs this plus one byte.
MSP_EXPORT int xml_XmlEscapeLength(char const* text);

// Writes text to destination with " ' & < > replaced by their entities, and a terminator. Returns the bytes
// written without the terminator. The destination is not bounded here: size it with xml_XmlEscapeLength.
MSP_EXPORT int xml_XmlEscape(char* destination, char const* text);

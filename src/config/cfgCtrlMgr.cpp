#include "msplatform/cfgCtrlMgr.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "msplatform/mutex.h"
#include "msplatform/stringUtils.h"

namespace {

constexpr size_t kMaxPath = 260;
constexpr size_t kLineStep = 16;

bool Empty(const char* s) {
    return !s || !*s;
}

// The whole store in one buffer: a file of the usual size fits the caller's array on the stack, a larger one
// goes to the heap. One byte always stays free behind the bytes read.
class StoreText {
public:
    StoreText(char* local, size_t size) : data_(local), local_(local), capacity_(size) {}
    ~StoreText() {
        if (data_ != local_) free(data_);
    }
    StoreText(const StoreText&) = delete;
    StoreText& operator=(const StoreText&) = delete;

    char* data() { return data_; }
    size_t size() const { return size_; }

    enum Outcome { kMissing, kFailed, kPartial, kWhole };

    // Opened as fopen64(path, "rb") would, but without waiting for a writer, as the open would on a FIFO
    // that nobody writes, with the lock held. Anything but a regular file fails: it cannot hold what a
    // write would put there (a FIFO would even block that write until a reader came). A read error keeps
    // what came before it.
    Outcome read(const char* path) {
        const int fd = open(path, O_RDONLY | O_LARGEFILE | O_NONBLOCK);
        if (fd < 0) return errno == ENOENT ? kMissing : kFailed;
        struct stat64 st;
        if (fstat64(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            close(fd);
            return kFailed;
        }
        // Read until the end, whatever the size said (a /proc file says 0), keeping one byte to spare; a
        // full buffer doubles (O_NONBLOCK changes nothing for a regular file).
        Outcome outcome = kWhole;
        for (;;) {
            if (size_ + 1 == capacity_ && !grow()) {
                outcome = kPartial;
                break;
            }
            const size_t room = capacity_ - 1 - size_;
            const ssize_t got = ::read(fd, data_ + size_, room);
            if (got > 0) {
                size_ += static_cast<size_t>(got);
                // A read that came short right at the size the file has is its end: no call for the end.
                if (static_cast<size_t>(got) < room && st.st_size > 0 &&
                    static_cast<uint64_t>(st.st_size) == size_)
                    break;
            } else if (got == 0) {
                break;
            } else if (errno != EINTR) {
                outcome = kPartial;
                break;
            }
        }
        close(fd);
        return outcome;
    }

private:
    // Doubles the buffer; on the 32-bit target a doubled 2 GiB would wrap.
    bool grow() {
        if (capacity_ > SIZE_MAX / 2) return false;
        const size_t capacity = capacity_ * 2;
        char* bigger = static_cast<char*>(data_ == local_ ? malloc(capacity) : realloc(data_, capacity));
        if (!bigger) return false;
        if (data_ == local_) memcpy(bigger, data_, size_);
        data_ = bigger;
        capacity_ = capacity;
        return true;
    }

    char* data_;
    char* const local_;
    size_t capacity_;
    size_t size_ = 0;
};

// Allocation failures are answered with CFG_NO_NODES and leave everything as it was: no exception may
// leave the library.
char* CopyName(const char* name) {
    size_t n = strlen(name) + 1;
    char* copy = static_cast<char*>(malloc(n));
    if (copy) memcpy(copy, name, n);
    return copy;
}

// length + 1 bytes, all zero, then exactly `length` bytes of the value: the caller's length decides, not a
// zero byte inside the value.
unsigned char* CopyValue(const unsigned char* value, int length) {
    unsigned char* copy = static_cast<unsigned char*>(calloc(static_cast<size_t>(length) + 1, 1));
    if (copy) memcpy(copy, value, static_cast<size_t>(length));
    return copy;
}

// The reader makes a section's name and all its keys one block, owned through the section's name: each key's
// node lies in it with its name right behind the node and a string value behind the name. Every other node
// has a block of its own that reaches at least one byte past the node, so that no name allocated apart can
// start right behind a node: the addresses tell the two kinds apart.
constexpr size_t kNodeBlock = sizeof(keyInfo) + 1;

bool InSectionBlock(const keyInfo& k) {
    return k.name == reinterpret_cast<const char*>(&k + 1);
}

// A value replaced since the read was allocated apart; the block, still held, can't hold its start.
bool ValueInSectionBlock(const keyInfo& k) {
    return InSectionBlock(k) &&
           k.stringValue == reinterpret_cast<unsigned char*>(k.name + strlen(k.name) + 1);
}

keyInfo* NewEndNode() {
    void* block = malloc(kNodeBlock);
    return block ? new (block) keyInfo{nullptr, dtypeNone, nullptr, 0, nullptr} : nullptr;
}

// A node of the reader's block goes with the section's name.
void FreeNode(keyInfo* node) {
    if (!ValueInSectionBlock(*node)) free(node->stringValue);
    if (InSectionBlock(*node)) return;
    free(node->name);
    free(node);
}

// The walk stops at the end node, which is never compared.
keyInfo* FindKey(const Section& s, const char* name) {
    for (keyInfo* k = s.firstKey; k && k != s.lastKey; k = k->next)
        if (StrCaseCmp(k->name, name) == 0) return k;
    return nullptr;
}

bool HasList(const Section& s) {
    return s.firstKey && s.lastKey;
}

// Fills the end node in place with a new key and links a fresh end node behind it. Everything that can
// fail is allocated first.
int AppendKey(Section& s, const char* name, dtype type, int intValue, const unsigned char* value,
              int length) {
    char* nameCopy = CopyName(name);
    unsigned char* valueCopy = type == dtypeUTF8 ? CopyValue(value, length) : nullptr;
    keyInfo* end = NewEndNode();
    if (!nameCopy || (type == dtypeUTF8 && !valueCopy) || !end) {
        free(nameCopy);
        free(valueCopy);
        free(end);
        return CFG_NO_NODES;
    }
    keyInfo* node = s.lastKey;
    node->name = nameCopy;
    node->type = type;
    node->stringValue = valueCopy;
    node->intValue = type == dtypeInt ? intValue : 0;
    node->next = end;
    s.lastKey = end;
    return CFG_OK;
}

// The common front of every key operation: the checks in their order, then the key.
int Lookup(const Section& s, const char* name, dtype wanted, keyInfo** key) {
    if (!HasList(s)) return CFG_NO_NODES;
    keyInfo* k = FindKey(s, name);
    if (!k) return CFG_KEY_NOT_FOUND;
    if (wanted != dtypeNone && k->type != wanted) return CFG_TYPE_MISMATCH;
    *key = k;
    return CFG_OK;
}

// A key line split at its first "=", with what the value makes: a string (everything behind the opening
// quote but the line's last byte, whatever it is: no closing quote is looked for) or a number.
struct KeyLine {
    char* name;
    size_t nameLength;
    dtype type;
    int number;
    unsigned char* text;
    size_t length;
};

// What strtol in base 10 makes of the text, kept to the 32-bit range. Plain decimal of up to nine digits,
// the writer's own form, is read here; blanks, signs and longer numbers go to strtol.
int ParseNumber(const char* p) {
    const bool negative = *p == '-';
    const char* digit = p + (negative ? 1 : 0);
    int value = 0, count = 0;
    for (; count < 9 && static_cast<unsigned>(*digit - '0') <= 9; ++digit, ++count)
        value = value * 10 + (*digit - '0');
    if (count > 0 && static_cast<unsigned>(*digit - '0') > 9) return negative ? -value : value;
    long number = strtol(p, nullptr, 10);  // saturates at the limits of long
    if (number > INT_MAX) number = INT_MAX;
    if (number < INT_MIN) number = INT_MIN;
    return static_cast<int>(number);
}

// Splits a key line in place at `eq`, its first "="; its text ends at `end`. CFG_NO_NODES for a string too
// long for the int that lengths travel in.
int SplitKeyLine(char* line, char* eq, char* end, KeyLine* key) {
    *eq = '\0';
    key->name = line;
    key->nameLength = static_cast<size_t>(eq - line);
    char* value = eq + 1;
    if (*value == '"') {
        unsigned char* text = reinterpret_cast<unsigned char*>(value + 1);
        size_t n = static_cast<size_t>(end - (value + 1));
        if (n > static_cast<size_t>(INT_MAX)) return CFG_NO_NODES;
        if (n > 0) text[--n] = '\0';
        key->type = dtypeUTF8;
        key->text = text;
        key->length = n;
    } else {
        key->type = dtypeInt;
        key->number = ParseNumber(value);
    }
    return CFG_OK;
}

}  // namespace

// ---- Section ----

int Section::initialize(const char* sectionName) {
    if (Empty(sectionName)) return CFG_BAD_ARGUMENT;
    char* copy = CopyName(sectionName);
    keyInfo* end = NewEndNode();
    if (!copy || !end) {
        free(copy);
        free(end);
        return CFG_NO_NODES;
    }
    name = copy;
    firstKey = lastKey = end;
    return CFG_OK;
}

void Section::uninitialize() {
    for (keyInfo* k = firstKey; k;) {
        keyInfo* next = k->next;
        FreeNode(k);
        k = next;
    }
    firstKey = lastKey = nullptr;
    free(name);
    name = nullptr;
}

int Section::createIntKey(char* keyName, int value) {
    if (Empty(keyName)) return CFG_BAD_ARGUMENT;
    if (!HasList(*this)) return CFG_NO_NODES;
    if (FindKey(*this, keyName)) return CFG_KEY_EXISTS;
    return AppendKey(*this, keyName, dtypeInt, value, nullptr, 0);
}

int Section::createUTF8Key(char* keyName, unsigned char* value, int length) {
    if (Empty(keyName) || !value || length < 0) return CFG_BAD_ARGUMENT;
    if (!HasList(*this)) return CFG_NO_NODES;
    if (FindKey(*this, keyName)) return CFG_KEY_EXISTS;
    return AppendKey(*this, keyName, dtypeUTF8, 0, value, length);
}

int Section::setIntKeyValue(char* keyName, int value) {
    if (Empty(keyName)) return CFG_BAD_ARGUMENT;
    keyInfo* k = nullptr;
    int rc = Lookup(*this, keyName, dtypeInt, &k);
    if (rc == CFG_OK) k->intValue = value;
    return rc;
}

int Section::setUTF8KeyValue(char* keyName, unsigned char* value, int length) {
    if (Empty(keyName) || !value || length < 0) return CFG_BAD_ARGUMENT;
    keyInfo* k = nullptr;
    int rc = Lookup(*this, keyName, dtypeUTF8, &k);
    if (rc != CFG_OK) return rc;
    unsigned char* copy = CopyValue(value, length);
    if (!copy) return CFG_NO_NODES;
    if (!ValueInSectionBlock(*k)) free(k->stringValue);
    k->stringValue = copy;
    return CFG_OK;
}

int Section::getIntKeyValue(char* keyName, int& value) {
    if (Empty(keyName)) return CFG_BAD_ARGUMENT;
    keyInfo* k = nullptr;
    int rc = Lookup(*this, keyName, dtypeInt, &k);
    if (rc == CFG_OK) value = k->intValue;
    return rc;
}

int Section::getUTF8KeyValLen(char* keyName, int& length) {
    if (Empty(keyName)) return CFG_BAD_ARGUMENT;
    keyInfo* k = nullptr;
    int rc = Lookup(*this, keyName, dtypeUTF8, &k);
    if (rc == CFG_OK) length = static_cast<int>(strlen(reinterpret_cast<char*>(k->stringValue)));
    return rc;
}

int Section::getUTF8KeyValue(char* keyName, unsigned char* buffer, int length) {
    if (Empty(keyName) || !buffer || length < 0) return CFG_BAD_ARGUMENT;
    keyInfo* k = nullptr;
    int rc = Lookup(*this, keyName, dtypeUTF8, &k);
    if (rc != CFG_OK) return rc;
    const size_t limit = static_cast<size_t>(length);
    // A value that fits goes with its terminator (so the buffer needs length + 1 bytes); a longer one is cut
    // to `length` bytes without one, and that is not reported.
    size_t n = strnlen(reinterpret_cast<char*>(k->stringValue), limit + 1);
    memcpy(buffer, k->stringValue, n <= limit ? n + 1 : limit);
    return CFG_OK;
}

int Section::getKeyType(char* keyName, dtype& type) {
    if (Empty(keyName)) return CFG_BAD_ARGUMENT;
    keyInfo* k = nullptr;
    int rc = Lookup(*this, keyName, dtypeNone, &k);
    if (rc == CFG_OK) type = k->type;
    return rc;
}

int Section::writeToCfgFile(FILE* stream) {
    if (!stream) return CFG_BAD_ARGUMENT;
    if (!HasList(*this)) return CFG_NO_NODES;
    fprintf(stream, "[%s]\r\n", name);
    for (keyInfo* k = firstKey; k != lastKey; k = k->next) {
        if (k->type == dtypeUTF8)
            fprintf(stream, "%s=\"%s\"\r\n", k->name, k->stringValue);
        else
            fprintf(stream, "%s=%d\r\n", k->name, k->intValue);
    }
    fputs("\r\n", stream);
    return CFG_OK;
}

// ---- ZvConfigCtrlMgr ----

namespace {

// Holds the manager's lock for a scope, so that no way out of an operation forgets to give it back.
class LockGuard {
public:
    explicit LockGuard(ZvConfigCtrlMgr& mgr) : mgr_(mgr) { mgr_.LockMutex(); }
    ~LockGuard() { mgr_.UnlockMutex(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    ZvConfigCtrlMgr& mgr_;
};

enum class Step { kRead, kCreate, kSet };

}  // namespace

// The steps every locked key operation shares: checks, lock, fresh read, section, the Section operation,
// and the write after a successful create or set.
struct CfgKeyOperation {
    template <class Op>
    static int run(ZvConfigCtrlMgr& m, char* section, char* key, Step step, Op op) {
        if (!m.isInitialized) return CFG_NOT_INITIALIZED;  // before any look at the arguments
        if (Empty(section) || Empty(key)) return CFG_BAD_ARGUMENT;
        LockGuard guard(m);
        m.readCfgValues();  // a file that cannot be opened counts as an empty store
        Section* s = m.getSectionNode(section);
        if (!s) {
            if (step != Step::kCreate) return CFG_SECTION_NOT_FOUND;
            s = append(m, section);
            if (!s) return CFG_NO_NODES;
        }
        int rc = op(*s);
        if (rc != CFG_OK || step == Step::kRead) return rc;
        // A file that exists but was not read whole would be replaced by the part in memory: refuse.
        if (m.readIncomplete) return CFG_FILE_ERROR;
        return m.writeCfgValues();
    }

    static Section* append(ZvConfigCtrlMgr& m, const char* name) {
        Section* s = new (std::nothrow) Section();
        if (!s) return nullptr;
        if (s->initialize(name) != CFG_OK) {
            delete s;
            return nullptr;
        }
        link(m, s);
        return s;
    }

    static void link(ZvConfigCtrlMgr& m, Section* s) {
        if (m.lastSection)
            m.lastSection->next = s;
        else
            m.firstSection = s;
        m.lastSection = s;
    }
};

ZvConfigCtrlMgr::ZvConfigCtrlMgr()
    : firstSection(nullptr),
      lastSection(nullptr),
      cfgFilePath(),
      isInitialized(0),
      mutex(nullptr),
      readIncomplete(0) {}

// At exit nothing is freed or written, and the semaphore stays for the other processes.
ZvConfigCtrlMgr::~ZvConfigCtrlMgr() {}

int ZvConfigCtrlMgr::initialize(const char* path) {
    if (isInitialized) return CFG_ALREADY_INITIALIZED;
    firstSection = lastSection = nullptr;
    if (Empty(path)) return CFG_BAD_ARGUMENT;
    const size_t length = strnlen(path, kMaxPath + 1);
    if (length > kMaxPath) return CFG_BAD_ARGUMENT;
    memcpy(cfgFilePath, path, length + 1);
    if (!mutex) {
        // A set this process may not use leaves the object inert: it is kept, and the store works without
        // exclusion, silently. Only running out of memory for the object itself is reported.
        mutex = new (std::nothrow) Mutex("cfgCtrlMgr");
        if (!mutex) puts("cfg initialize failed to get mutex");
    }
    isInitialized = 1;
    return CFG_OK;
}

void ZvConfigCtrlMgr::uninitialize() {
    if (!isInitialized) return;
    clearNodes();
    isInitialized = 0;
}

int ZvConfigCtrlMgr::createIntKey(char* section, char* key, int value) {
    return CfgKeyOperation::run(*this, section, key, Step::kCreate,
                                [&](Section& s) { return s.createIntKey(key, value); });
}

int ZvConfigCtrlMgr::createUTF8Key(char* section, char* key, unsigned char* value, int length) {
    return CfgKeyOperation::run(*this, section, key, Step::kCreate,
                                [&](Section& s) { return s.createUTF8Key(key, value, length); });
}

int ZvConfigCtrlMgr::getKeyIntValue(char* section, char* key, int& value) {
    return CfgKeyOperation::run(*this, section, key, Step::kRead,
                                [&](Section& s) { return s.getIntKeyValue(key, value); });
}

int ZvConfigCtrlMgr::setKeyIntValue(char* section, char* key, int value) {
    return CfgKeyOperation::run(*this, section, key, Step::kSet,
                                [&](Section& s) { return s.setIntKeyValue(key, value); });
}

int ZvConfigCtrlMgr::getKeyUTF8ValLen(char* section, char* key, int& length) {
    return CfgKeyOperation::run(*this, section, key, Step::kRead,
                                [&](Section& s) { return s.getUTF8KeyValLen(key, length); });
}

int ZvConfigCtrlMgr::getKeyUTF8Value(char* section, char* key, unsigned char* buffer, int length) {
    return CfgKeyOperation::run(*this, section, key, Step::kRead,
                                [&](Section& s) { return s.getUTF8KeyValue(key, buffer, length); });
}

int ZvConfigCtrlMgr::setKeyUTF8Value(char* section, char* key, const unsigned char* value, int length) {
    // The section only reads the value.
    unsigned char* bytes = const_cast<unsigned char*>(value);
    return CfgKeyOperation::run(*this, section, key, Step::kSet,
                                [&](Section& s) { return s.setUTF8KeyValue(key, bytes, length); });
}

int ZvConfigCtrlMgr::getKeyType(char* section, char* key, dtype& type) {
    if (!isInitialized) return CFG_NOT_INITIALIZED;
    if (Empty(section) || Empty(key)) return CFG_BAD_ARGUMENT;
    Section* s = getSectionNode(section);
    if (!s) return CFG_SECTION_NOT_FOUND;
    return s->getKeyType(key, type);
}

void ZvConfigCtrlMgr::clearNodes() {
    for (Section* s = firstSection; s;) {
        Section* next = s->next;
        s->uninitialize();
        delete s;
        s = next;
    }
    firstSection = lastSection = nullptr;
}

int ZvConfigCtrlMgr::isLineInfoASection(char* line) {
    if (!line || line[0] != '[') return 0;
    size_t n = strlen(line);
    return n >= 2 && line[n - 1] == ']' ? 1 : 0;
}

int ZvConfigCtrlMgr::addSection(char* line) {
    if (!isLineInfoASection(line)) return CFG_BAD_ARGUMENT;
    line[strlen(line) - 1] = '\0';
    Section* s = new (std::nothrow) Section();  // fields start null
    if (!s) return CFG_NO_NODES;
    CfgKeyOperation::link(*this, s);
    // "[]" leaves a record without name or key list at the end: lookups pass it by, key lines behind it are
    // dropped, and the writer leaves it out.
    if (s->initialize(line + 1) == CFG_NO_NODES) return CFG_NO_NODES;
    return CFG_OK;
}

int ZvConfigCtrlMgr::getLineInfo(FILE* stream, char** line) {
    if (!stream || !line) return 0;
    // A read error (a directory, say) gives EOF with feof still false: stop on either.
    if (feof(stream) || ferror(stream)) return 0;
    size_t capacity = kLineStep;
    size_t n = 0;
    char* buf = static_cast<char*>(malloc(capacity));
    if (!buf) return 0;
    for (;;) {
        int c = getc_unlocked(stream);
        if (c == EOF || c == '\n') break;
        if (c == '\r') {
            // CR LF is one ending; a lone CR takes the next byte with it, whatever it is.
            (void)getc_unlocked(stream);
            break;
        }
        buf[n++] = static_cast<char>(c);
        if (n == capacity) {  // keeps room for the terminator
            // On the 32-bit target a doubled 2 GiB would wrap to 0, and realloc to 0 frees the line.
            char* bigger =
                capacity <= SIZE_MAX / 2 ? static_cast<char*>(realloc(buf, capacity * 2)) : nullptr;
            if (!bigger) {
                free(buf);
                return 0;
            }
            buf = bigger;
            capacity *= 2;
        }
    }
    buf[n] = '\0';
    *line = buf;
    return 1;
}

int ZvConfigCtrlMgr::updateKey(char* line) {
    if (Empty(line)) return CFG_BAD_ARGUMENT;
    char* eq = strchr(line, '=');
    if (!eq) return 0;
    // A key line ahead of the first section has nowhere to go: dropped like any line that yields no key.
    if (!lastSection) return 0;
    KeyLine key;
    if (SplitKeyLine(line, eq, eq + strlen(eq), &key) != CFG_OK) return CFG_NO_NODES;
    const int rc = key.type == dtypeUTF8
                       ? lastSection->createUTF8Key(key.name, key.text, static_cast<int>(key.length))
                       : lastSection->createIntKey(key.name, key.number);
    // A repeated or empty key name is dropped; only an allocation failure on a real section is a failure.
    if (rc == CFG_NO_NODES && lastSection->firstKey) return CFG_NO_NODES;
    return CFG_OK;
}

namespace {

// A file of the usual size is read into an array on the stack.
constexpr size_t kStackText = 4096;

size_t NodeSpace(size_t bytes) {
    return (bytes + alignof(keyInfo) - 1) & ~(alignof(keyInfo) - 1);
}

// The section being read: its name and the key lines it keeps, which stay in the read buffer until the
// section is complete and becomes one block. A repeated name is found through a hash of the names folded as
// StrCaseCmp folds them (by the locale's table), without comparing it with every key before it.
class SectionLines {
public:
    SectionLines() = default;
    ~SectionLines() {
        if (entries_ != local_) free(entries_);
    }
    SectionLines(const SectionLines&) = delete;
    SectionLines& operator=(const SectionLines&) = delete;

    // Key lines go nowhere until the first named section line, nor behind "[]".
    bool active() const { return name_ != nullptr; }
    void stop() { name_ = nullptr; }

    void start(const char* name, size_t length) {
        if (entries_ != local_) free(entries_);
        entries_ = local_;
        slots_ = localSlots_;
        capacity_ = kLocal;
        name_ = name;
        count_ = 0;
        bytes_ = NodeSpace(length + 1);
        memset(slots_, 0, slotCount() * sizeof(uint32_t));
    }

    // False when memory ran out. A line with an empty name or one that repeats a name is dropped: the first
    // value and type stand.
    bool add(const KeyLine& line) {
        if (line.nameLength == 0) return true;
        const uint32_t hash = Hash(line.name, line.nameLength);
        const size_t mask = slotCount() - 1;
        size_t i = hash & mask;
        for (; slots_[i] != 0; i = (i + 1) & mask) {
            const Entry& e = entries_[slots_[i] - 1];
            if (e.hash == hash && StrCaseCmp(e.line.name, line.name) == 0) return true;
        }
        const size_t size =
            NodeSpace(sizeof(keyInfo) + line.nameLength + 1 + (line.type == dtypeUTF8 ? line.length + 1 : 0));
        if (bytes_ > SIZE_MAX / 2 - size) return false;
        if (count_ == capacity_) {
            if (!grow()) return false;
            return add(line);
        }
        entries_[count_] = Entry{line, hash};
        slots_[i] = static_cast<uint32_t>(++count_);
        bytes_ += size;
        return true;
    }

    // The section with its keys, or null when memory ran out.
    Section* build() const {
        char* block = static_cast<char*>(malloc(bytes_));
        keyInfo* end = NewEndNode();
        Section* s = new (std::nothrow) Section();
        if (!block || !end || !s) {
            free(block);
            free(end);
            delete s;
            return nullptr;
        }
        strcpy(block, name_);
        s->name = block;
        s->lastKey = end;
        keyInfo** link = &s->firstKey;
        char* at = block + NodeSpace(strlen(name_) + 1);
        for (size_t k = 0; k < count_; ++k) {
            const KeyLine& line = entries_[k].line;
            keyInfo* node = new (at) keyInfo{nullptr, line.type, nullptr, 0, end};
            node->name = reinterpret_cast<char*>(node + 1);
            memcpy(node->name, line.name, line.nameLength + 1);
            size_t size = sizeof(keyInfo) + line.nameLength + 1;
            if (line.type == dtypeUTF8) {
                node->stringValue = reinterpret_cast<unsigned char*>(node->name + line.nameLength + 1);
                memcpy(node->stringValue, line.text, line.length + 1);
                size += line.length + 1;
            } else {
                node->intValue = line.number;
            }
            *link = node;
            link = &node->next;
            at += NodeSpace(size);
        }
        *link = end;
        return s;
    }

private:
    struct Entry {
        KeyLine line;
        uint32_t hash;
    };

    static uint32_t Hash(const char* name, size_t length) {
        uint32_t h = 2166136261u;
        for (size_t i = 0; i < length; ++i)
            h = (h ^ static_cast<uint32_t>(tolower(static_cast<unsigned char>(name[i])))) * 16777619u;
        return h;
    }

    // Twice as many slots as entries, so that the table stays at most half full.
    size_t slotCount() const { return 2 * capacity_; }

    // Entries and slots in one block, twice as many of each.
    bool grow() {
        const size_t capacity = 2 * capacity_;
        if (capacity > SIZE_MAX / 4 / (sizeof(Entry) + 2 * sizeof(uint32_t))) return false;
        Entry* entries = static_cast<Entry*>(malloc(capacity * (sizeof(Entry) + 2 * sizeof(uint32_t))));
        if (!entries) return false;
        uint32_t* slots = reinterpret_cast<uint32_t*>(entries + capacity);
        memset(slots, 0, 2 * capacity * sizeof(uint32_t));
        memcpy(entries, entries_, count_ * sizeof(Entry));
        for (size_t k = 0; k < count_; ++k) {
            size_t i = entries[k].hash & (2 * capacity - 1);
            while (slots[i] != 0) i = (i + 1) & (2 * capacity - 1);
            slots[i] = static_cast<uint32_t>(k + 1);
        }
        if (entries_ != local_) free(entries_);
        entries_ = entries;
        slots_ = slots;
        capacity_ = capacity;
        return true;
    }

    static constexpr size_t kLocal = 32;
    const char* name_ = nullptr;  // terminated, in the read buffer
    Entry local_[kLocal];
    uint32_t localSlots_[2 * kLocal];
    Entry* entries_ = local_;
    uint32_t* slots_ = localSlots_;  // entry number + 1, or 0 for a free slot
    size_t capacity_ = kLocal;
    size_t count_ = 0;
    size_t bytes_ = 0;  // the block so far
};

}  // namespace

// The file is read whole in one go and taken apart in place, line by line as getLineInfo would give the
// lines, without a buffer per line; each section's name and keys become one block.
int ZvConfigCtrlMgr::readCfgValues() {
    clearNodes();
    readIncomplete = 0;
    char stack[kStackText];
    StoreText text(stack, sizeof stack);
    const StoreText::Outcome outcome = text.read(cfgFilePath);
    // Only a missing file is an empty store that a create may write anew.
    bool whole = outcome == StoreText::kWhole;
    if (outcome == StoreText::kMissing || outcome == StoreText::kFailed) {
        readIncomplete = outcome == StoreText::kFailed;
        return CFG_FILE_ERROR;
    }
    SectionLines section;
    auto finish = [&]() {
        if (!section.active()) return true;
        Section* s = section.build();
        if (s) CfgKeyOperation::link(*this, s);
        return s != nullptr;
    };
    char* const end = text.data() + text.size();
    *end = '\n';  // the byte to spare ends the last line
    for (char* line = text.data(); line < end && whole;) {
        // A line ends at LF or CR; a zero byte ends its text.
        char* stop = line;
        while (*stop != '\n' && *stop != '\r' && *stop != '\0') ++stop;
        char* const textEnd = stop;
        while (*stop != '\n' && *stop != '\r') ++stop;
        char* next = stop + 1;
        if (*stop == '\r' && next < end) ++next;  // CR LF is one ending; a lone CR takes the next byte
        *textEnd = '\0';
        const size_t length = static_cast<size_t>(textEnd - line);
        if (length >= 2 && line[0] == '[' && textEnd[-1] == ']') {
            whole = finish();
            section.stop();
            if (length > 2) {
                textEnd[-1] = '\0';
                section.start(line + 1, length - 2);
            } else if (whole) {
                whole = addSection(line) != CFG_NO_NODES;  // "[]": a record without name or key list
            }
        } else if (char* eq = section.active() ? static_cast<char*>(memchr(line, '=', length)) : nullptr) {
            KeyLine key;
            whole = SplitKeyLine(line, eq, textEnd, &key) == CFG_OK && section.add(key);
        }
        line = next;
    }
    if (whole) whole = finish();
    if (!whole) {
        readIncomplete = 1;
        return CFG_FILE_ERROR;
    }
    return CFG_OK;
}

int ZvConfigCtrlMgr::writeCfgValues() {
    if (!firstSection || !lastSection) return CFG_NO_NODES;
    FILE* f = fopen64(cfgFilePath, "wb");
    if (!f) return CFG_FILE_ERROR;
    for (Section* s = firstSection; s; s = s->next) s->writeToCfgFile(f);
    // A short write (full disk, size limit) is reported: the file no longer holds the store.
    bool failed = ferror(f) != 0;
    if (fclose(f) != 0) failed = true;
    return failed ? CFG_FILE_ERROR : CFG_OK;
}

Section* ZvConfigCtrlMgr::getSectionNode(char* sectionName) {
    if (!sectionName) return nullptr;
    for (Section* s = firstSection; s; s = s->next)
        if (s->name && StrCaseCmp(s->name, sectionName) == 0) return s;
    return nullptr;
}

void ZvConfigCtrlMgr::DeleteMutex() {
    delete mutex;
    mutex = nullptr;
}

void ZvConfigCtrlMgr::LockMutex() {
    if (mutex) mutex->lock();
}

void ZvConfigCtrlMgr::UnlockMutex() {
    if (mutex) mutex->unlock();
}

#include "msplatform/cfgCtrlMgr.h"

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

// fopen64(path, "rb") for a store that is a regular file. The open does not wait for a writer, as it would on
// a FIFO that nobody writes, with the lock held. Anything but a regular file fails with errno EINVAL: it
// cannot hold what a write would put there (a FIFO would even block that write until a reader came).
FILE* OpenStoreForReading(const char* path) {
    const int fd = open(path, O_RDONLY | O_LARGEFILE | O_NONBLOCK);
    if (fd < 0) return nullptr;
    struct stat64 st;
    const int flags = fcntl(fd, F_GETFL);
    FILE* f = nullptr;
    if (fstat64(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        if (flags != -1 && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != -1) f = fdopen(fd, "rb");
    }
    if (!f) {
        close(fd);
        errno = EINVAL;
    }
    return f;
}

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

keyInfo* NewEndNode() {
    keyInfo* node = new (std::nothrow) keyInfo();
    if (node) node->type = dtypeNone;
    return node;
}

void FreeNode(keyInfo* node) {
    free(node->name);
    free(node->stringValue);
    delete node;
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
        delete end;
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

}  // namespace

// ---- Section ----

int Section::initialize(const char* sectionName) {
    if (Empty(sectionName)) return CFG_BAD_ARGUMENT;
    char* copy = CopyName(sectionName);
    keyInfo* end = NewEndNode();
    if (!copy || !end) {
        free(copy);
        delete end;
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
    free(k->stringValue);
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
    *eq = '\0';
    char* value = eq + 1;
    int rc;
    if (*value == '"') {
        // The closing quote is not looked for: the last byte of the line goes, whatever it is.
        unsigned char* text = reinterpret_cast<unsigned char*>(value + 1);
        size_t n = strlen(value + 1);
        if (n > static_cast<size_t>(INT_MAX)) return CFG_NO_NODES;
        if (n > 0) text[--n] = '\0';
        rc = lastSection->createUTF8Key(line, text, static_cast<int>(n));
    } else {
        long number = strtol(value, nullptr, 10);  // saturates at the limits of long
        if (number > INT_MAX) number = INT_MAX;
        if (number < INT_MIN) number = INT_MIN;
        rc = lastSection->createIntKey(line, static_cast<int>(number));
    }
    // A repeated or empty key name is dropped; only an allocation failure on a real section is a failure.
    if (rc == CFG_NO_NODES && lastSection->firstKey) return CFG_NO_NODES;
    return CFG_OK;
}

int ZvConfigCtrlMgr::readCfgValues() {
    clearNodes();
    readIncomplete = 0;
    FILE* f = OpenStoreForReading(cfgFilePath);
    if (!f) {
        // Only a missing file is an empty store that a create may write anew.
        if (errno != ENOENT) readIncomplete = 1;
        return CFG_FILE_ERROR;
    }
    bool whole = true;
    while (!feof(f) && !ferror(f)) {
        char* line = nullptr;
        if (getLineInfo(f, &line) != 1) {
            whole = feof(f) && !ferror(f);
            break;
        }
        int rc = isLineInfoASection(line) ? addSection(line) : updateKey(line);
        free(line);
        if (rc == CFG_NO_NODES) {
            whole = false;
            break;
        }
    }
    if (ferror(f)) whole = false;
    fclose(f);
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

// The configuration store: sections of keys read from and written to one file, MediaServer.cfg, that all
// server processes share.
//
// Section is one [name] block in memory: an ordered list of integer and string keys, names compared without
// regard to ASCII case. ZvConfigCtrlMgr keeps the file's sections; each key operation takes the system-wide
// lock "cfgCtrlMgr", reads the whole file afresh, works on it, writes the whole file back after a successful
// create or set, and lets the lock go. Most callers use the flat functions of ZvCfgCtrlMgr.h instead.
//
// Records and strings belong to the store; nothing it holds is handed to the caller to free. Every result is
// one of the CFG_* codes below.
#pragma once

#include <stdio.h>

#include "msplatform/export.h"

class Mutex;

// Result codes of the store, the flat functions, the manager and Section alike.
enum {
    CFG_OK = 1,              // success
    CFG_FILE_ERROR = 0,      // the file could not be opened (or read, or written whole)
    CFG_BAD_ARGUMENT = -1,   // a name is null or empty, a value or buffer null, a length negative, a path bad
    CFG_NO_NODES = -2,       // no section list to write, a section without a key list, or memory ran out
    CFG_KEY_EXISTS = -3,     // the section already has a key of that name
    CFG_KEY_NOT_FOUND = -4,  // the section has no key of that name
    CFG_TYPE_MISMATCH = -5,  // the key exists with the other type
    CFG_SECTION_NOT_FOUND = -6,    // no section of that name
    CFG_ALREADY_INITIALIZED = -7,  // initialize on an initialised manager; the first path stays
    CFG_NOT_INITIALIZED = -8,      // a key operation before initialize
};

// Type of a key.
enum dtype {
    dtypeUTF8 = 0,   // string value
    dtypeInt = 1,    // 32-bit signed integer value
    dtypeNone = -1,  // the empty end node of a key list; no key has it
};

// One node of a section's key list. The list always ends in one empty node (name null, type dtypeNone).
struct keyInfo {
    char* name;                  // owned, terminated; null in the end node
    dtype type;                  // fixed when the key is created
    unsigned char* stringValue;  // owned, stored length + 1 bytes, for dtypeUTF8; null otherwise
    int intValue;                // value of a dtypeInt key; 0 otherwise
    keyInfo* next;               // following node; null in the end node
};

// One section: a plain record; its owner allocates it, sets next to null and calls initialize.
//
// String values are stored as `length` bytes copied from `value` plus a terminator; anything behind a zero
// byte inside them is lost to the queries and the writer. getUTF8KeyValue copies strlen + 1 bytes when they
// fit in `length`, otherwise `length` bytes without a terminator: give it a buffer of length + 1 bytes.
// A failed operation changes nothing and writes no output argument.
class MSP_EXPORT Section {
public:
    int initialize(const char* name);
    void uninitialize();

    int createIntKey(char* name, int value);
    int createUTF8Key(char* name, unsigned char* value, int length);
    int setIntKeyValue(char* name, int value);
    int setUTF8KeyValue(char* name, unsigned char* value, int length);
    int getIntKeyValue(char* name, int& value);
    int getUTF8KeyValLen(char* name, int& length);
    int getUTF8KeyValue(char* name, unsigned char* buffer, int length);
    int getKeyType(char* name, dtype& type);

    // Writes "[name]" CR LF, one line per key ("name=\"value\"" or "name=decimal", each CR LF), then CR LF.
    int writeToCfgFile(FILE* stream);

    keyInfo* firstKey;  // first node of the list
    keyInfo* lastKey;   // the empty end node
    char* name;         // owned, terminated
    Section* next;      // following section; kept by the manager
};

// The store over one file. A process has one, private to the library, behind the flat functions.
class MSP_EXPORT ZvConfigCtrlMgr {
public:
    // Clears the fields only; the file and the lock are touched from initialize on.
    ZvConfigCtrlMgr();
    // Frees nothing, writes nothing, keeps the semaphore in the system.
    ~ZvConfigCtrlMgr();
    ZvConfigCtrlMgr(const ZvConfigCtrlMgr&) = delete;
    ZvConfigCtrlMgr& operator=(const ZvConfigCtrlMgr&) = delete;

    // Stores the path (1 to 260 bytes, not opened here) and gets the lock. -7 when already initialised. A
    // lock that this process may not use (another user's set) leaves the store working without exclusion,
    // silently; the object stays for the next initialize.
    int initialize(const char* path);
    // Frees the sections; the lock stays for the next initialize.
    void uninitialize();

    // Key operations: -8 before initialize, -1 for a null or empty section or key name, -6 for a missing
    // section (the creates make it). Each runs under the lock on a fresh read of the file; a create or set
    // that succeeds rewrites the whole file and gives 1, or 0 if the file could not be written.
    int createIntKey(char* section, char* key, int value);
    int createUTF8Key(char* section, char* key, unsigned char* value, int length);
    int getKeyIntValue(char* section, char* key, int& value);
    int setKeyIntValue(char* section, char* key, int value);
    int getKeyUTF8ValLen(char* section, char* key, int& length);
    int getKeyUTF8Value(char* section, char* key, unsigned char* buffer, int length);
    int setKeyUTF8Value(char* section, char* key, const unsigned char* value, int length);
    // Answers from what the last key operation of this process read, without the lock.
    int getKeyType(char* section, char* key, dtype& type);

    // The steps of the operations above.
    void clearNodes();
    int isLineInfoASection(char* line);
    int addSection(char* line);
    // Reads one line into a malloc'd *line (the caller frees it); 0 at the end of the stream or on a read
    // error.
    int getLineInfo(FILE* stream, char** line);
    int updateKey(char* line);
    int readCfgValues();
    int writeCfgValues();
    Section* getSectionNode(char* name);

    // Removes the semaphore for every process. Nothing in the library calls it.
    void DeleteMutex();
    void LockMutex();
    void UnlockMutex();

private:
    friend struct CfgKeyOperation;  // the common steps of the key operations, inside the library

    Section* firstSection;        // first of the sections read; null when there are none
    Section* lastSection;         // where new sections and key lines go
    char cfgFilePath[260 + 1];    // the file, as given to initialize
    unsigned char isInitialized;  // 1 between initialize and uninitialize
    Mutex* mutex;                 // "cfgCtrlMgr"; null until the first initialize
    // The last read met a file that exists but could not be read whole: its sections are not all in memory,
    // so writing them back would lose keys. Creates and sets refuse to write then.
    unsigned char readIncomplete;
};

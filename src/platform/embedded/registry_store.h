// The registry's storage: one SQLite database in the machine root.
//
// Tables: keys (id, parent, name, fold) and vals (id, key, name, fold, type,
// data). Names are UTF-16 kept with their case; `fold` is the upper-cased
// name (big-endian UTF-16, so byte order is character order) that lookups
// and the order of subkeys use. Ids are never reused, so a handle on a
// deleted key keeps seeing it gone even when a key of the same name is made
// again. Values keep the order they were first set in.
//
// One connection per process, used under mutex(). Every member below
// expects the caller to hold the mutex and to have called Open().
//
// Durability: WAL journal with synchronous=NORMAL. A commit has written its
// pages into the log file before it returns, so a process killed at any
// moment (SIGKILL included) loses no committed write: the next connection
// replays the log. Only a crash of the whole host may lose the last commits
// (never the file's consistency).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/registry.h"

namespace platform {

// Where the last enumeration by index of a handle stopped, so that walking
// index after index reads on from there instead of counting from the start.
// Valid only while nothing in the registry changed since.
struct EnumCursor {
    bool valid = false;
    DWORD index = 0;
    std::uint64_t stamp = 0;
    std::string fold;          // subkeys: the last name returned, as stored
    std::int64_t valueId = 0;  // values: the row of the last value returned
};

struct RegistryKeyObject {
    std::int64_t id = 0;
    REGSAM access = 0;
    std::uint64_t generation = 0;  // the connection it was opened on
    EnumCursor subKeys;
    EnumCursor values;
};

namespace registry_store {

using KeyId = std::int64_t;
inline constexpr KeyId kMachineKey = 1;

// A prepared statement, reset and unbound after each use.
class Statement {
  public:
    Statement() = default;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { Finalize(); }

    int Prepare(sqlite3* db, const char* sql);
    void Finalize();
    // Forgets the statement without touching SQLite (in a forked child).
    void Abandon() { stmt_ = nullptr; }
    sqlite3_stmt* get() const { return stmt_; }

  private:
    sqlite3_stmt* stmt_ = nullptr;
};

class Store;

// A transaction. Nested in another one, a writing transaction is a savepoint
// of it, so that a failed call undoes its own changes only; a reading one
// simply joins. Rolls back (to its savepoint) unless committed.
class Transaction {
  public:
    Transaction(Store& store, bool write);
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();
    DWORD status() const { return status_; }
    DWORD Commit();

  private:
    Store& store_;
    bool owner_ = false;
    bool savepoint_ = false;
    bool done_ = false;
    DWORD status_ = ERROR_SUCCESS;
};

// Makes the registry calls of this thread, for its lifetime, one transaction:
// an operation that writes many values (a printer added with its record and
// data) costs one commit instead of one per value, and one that reads many
// takes the database's read lock once and sees one consistent state. Holds
// the store's mutex throughout, so that other threads of the process neither
// see the work half done nor mix their own work into it. Nested batches join
// the outermost, which commits when it ends. A batch for reading must not
// write (another process may have written since it began; the write would
// fail). A root that cannot be opened gets no batch; the calls then run as
// they would without one.
class Batch {
  public:
    enum Work { kRead, kWrite };
    explicit Batch(Work work);
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;
    // Commits now (the outermost batch only); a storage error when the work
    // could not be kept. Later calls of the thread run without a batch.
    DWORD Commit();

  private:
    std::unique_lock<std::recursive_mutex> lock_;
    bool owner_ = false;
};

class Store {
  public:
    static Store& Get();
    std::recursive_mutex& mutex() { return mutex_; }

    // Opens the connection to the current machine root if needed.
    DWORD Open();
    std::uint64_t generation() const { return generation_; }

    // Handles of this process.
    std::unordered_set<RegistryKeyObject*>& handles() { return handles_; }

    // Finds an existing key below `base` ("a\b", case-insensitive).
    DWORD Resolve(KeyId base, std::u16string_view path, KeyId* id);
    // Finds or creates every key of the path; *created tells whether the last
    // one was new.
    DWORD Create(KeyId base, std::u16string_view path, KeyId* id, bool* created);
    // HKEY_CLASSES_ROOT, made again if someone removed it.
    DWORD ClassesRoot(KeyId* id);
    // ERROR_SUCCESS, ERROR_KEY_DELETED or a storage error.
    DWORD CheckKey(KeyId id);

    // Two-call query with Win32 buffer rules.
    DWORD Query(KeyId key, std::u16string_view name, DWORD* type, void* data, DWORD* size);
    DWORD GetValue(KeyId key, std::u16string_view name, RegistryValue* value);
    DWORD SetValue(KeyId key, std::u16string_view name, DWORD type, const void* data, DWORD size);
    DWORD DeleteValue(KeyId key, std::u16string_view name);
    // By index; `cursor` (may be null) speeds up walks over consecutive indexes.
    DWORD ValueAt(KeyId key, DWORD index, RegistryValue* value, EnumCursor* cursor);
    DWORD Values(KeyId key, std::vector<RegistryValue>* values);
    DWORD SubKeyAt(KeyId key, DWORD index, std::u16string* name, EnumCursor* cursor);
    DWORD SubKeys(KeyId key, std::vector<std::pair<KeyId, std::u16string>>* keys);

    // Deletes a key without subkeys (ERROR_ACCESS_DENIED otherwise).
    DWORD DeleteKey(KeyId key);
    // Deletes the subkeys and values of a key, and the key itself if asked.
    DWORD DeleteTree(KeyId key, bool includeKey);
    // The key's names from below `top` down, "\" separated.
    DWORD PathBelow(KeyId key, KeyId top, std::u16string* path);

    // For Transaction.
    DWORD Exec(Statement& stmt, bool writing);
    Statement begin_read, begin_write, commit, rollback, savepoint, release, rollback_to;
    sqlite3* db() const { return db_; }
    void DropCache() {
        cache_.clear();
        keyGeneration_ = -1;  // whatever the database says next, it is news
        Changed();
    }
    // Anything written through this connection ends enumeration cursors.
    void Changed() { ++changeStamp_; }
    // A transaction began (its first reads may see others' work).
    void Began() { ++transactions_; }

  private:
    Store();
    // Closes the connection; with `abandon` (in a forked child, where the
    // parent's connection must not be used or closed) only forgets it.
    void Close(bool abandon = false);
    // Creates the tables and prepares the statements: an SQLite result.
    int Initialize();
    int PrepareStatements();
    // Opens the registry for reading only (the root cannot be written):
    // writes then fail with ERROR_ACCESS_DENIED.
    DWORD OpenReadOnly(const std::string& path);
    // Every prepared statement with its SQL.
    std::vector<std::pair<Statement*, const char*>> StatementTable();
    DWORD CheckCache();
    DWORD LookupChild(KeyId parent, std::u16string_view fold, KeyId* id);
    void SetFold(std::u16string_view name);
    // Records that keys were deleted (for other processes' path caches) and
    // forgets the paths that led to the `removed` ones.
    DWORD BumpKeyGeneration(const std::vector<KeyId>& removed);
    DWORD Descendants(KeyId key, std::vector<KeyId>* ids);
    DWORD RemoveKey(KeyId key);

    std::recursive_mutex mutex_;
    sqlite3* db_ = nullptr;
    std::uint64_t generation_ = 1;
    std::unordered_set<RegistryKeyObject*> handles_;
    std::unordered_map<std::string, KeyId> cache_;
    std::int64_t dataVersion_ = -1;
    std::int64_t keyGeneration_ = -1;
    std::uint64_t changeStamp_ = 1;
    std::uint64_t transactions_ = 1;
    std::uint64_t checkedIn_ = 0;  // the transaction CheckCache last ran in
    std::string fold_;             // scratch: the folded name being looked up, as stored
    Statement dataVersion_stmt_, keyGen_, bumpKeyGen_, child_, insertKey_, keyExists_, hasChildren_,
        children_, childAt_, keyInfo_, deleteKeyVals_, deleteKey_, query_, set_, deleteVal_,
        valueAt_, values_, childAfter_, valueAfter_;
};

// Win32 error for an SQLite result.
DWORD FromSqlite(int rc, bool writing);

}  // namespace registry_store
}  // namespace platform

#include "registry_store.h"

#include <pthread.h>
#include <unistd.h>

#include <bit>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include "platform/machine.h"
#include "platform/text.h"

namespace platform::registry_store {

static_assert(std::endian::native == std::endian::little,
              "names are stored as the host's UTF-16 bytes, little-endian");

namespace {

constexpr int kBusyTimeoutMs = 30000;

// Names are compared upper-cased by the common table.
char16_t Upcase(char16_t c) {
    return UpcaseChar(c);
}

std::u16string Fold(std::u16string_view name) {
    return UpcaseName(name);
}

// The folded name as stored: big-endian UTF-16.
void EncodeFold(std::u16string_view name, std::string* out) {
    out->resize(name.size() * 2);
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char16_t c = Upcase(name[i]);
        (*out)[2 * i] = static_cast<char>(c >> 8);
        (*out)[2 * i + 1] = static_cast<char>(c & 0xFF);
    }
}

const char kEmpty[1] = {0};

void BindName(sqlite3_stmt* stmt, int index, std::u16string_view name) {
    sqlite3_bind_blob(stmt, index, name.empty() ? kEmpty : static_cast<const void*>(name.data()),
                      static_cast<int>(name.size() * 2), SQLITE_STATIC);
}

void BindBytes(sqlite3_stmt* stmt, int index, const std::string& bytes) {
    sqlite3_bind_blob(stmt, index, bytes.empty() ? kEmpty : bytes.data(),
                      static_cast<int>(bytes.size()), SQLITE_STATIC);
}

std::u16string ColumnName(sqlite3_stmt* stmt, int column) {
    const auto* p = static_cast<const char*>(sqlite3_column_blob(stmt, column));
    const auto n = static_cast<std::size_t>(sqlite3_column_bytes(stmt, column)) / 2;
    std::u16string name(n, u'\0');
    if (n != 0) {
        std::memcpy(name.data(), p, n * 2);
    }
    return name;
}

std::vector<std::byte> ColumnBytes(sqlite3_stmt* stmt, int column) {
    const auto* p = static_cast<const std::byte*>(sqlite3_column_blob(stmt, column));
    const auto n = static_cast<std::size_t>(sqlite3_column_bytes(stmt, column));
    return n == 0 ? std::vector<std::byte>{} : std::vector<std::byte>(p, p + n);
}

// Resets and unbinds a statement when the scope ends.
class Use {
  public:
    explicit Use(Statement& s) : stmt_(s.get()) {}
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use() {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    sqlite3_stmt* operator*() const { return stmt_; }

  private:
    sqlite3_stmt* stmt_;
};

// The components of a relative path. A leading backslash is an error, as on
// Windows; empty components (doubled or trailing separators) are skipped.
// Names are cut at an embedded NUL, where a C string would end.
DWORD SplitPath(std::u16string_view path, bool creating, std::vector<std::u16string_view>* parts) {
    if (const auto nul = path.find(u'\0'); nul != std::u16string_view::npos) {
        path = path.substr(0, nul);
    }
    parts->clear();
    if (!path.empty() && path.front() == u'\\') {
        return ERROR_BAD_PATHNAME;
    }
    std::size_t start = 0;
    while (start < path.size()) {
        auto end = path.find(u'\\', start);
        if (end == std::u16string_view::npos) {
            end = path.size();
        }
        if (end > start) {
            if (end - start > kMaxKeyNameLength) {
                // No key can have such a name: opening finds nothing, making
                // one is refused.
                return creating ? ERROR_INVALID_PARAMETER : ERROR_FILE_NOT_FOUND;
            }
            parts->push_back(path.substr(start, end - start));
        }
        start = end + 1;
    }
    return ERROR_SUCCESS;
}

}  // namespace

DWORD FromSqlite(int rc, bool writing) {
    switch (rc & 0xFF) {
        case SQLITE_OK:
        case SQLITE_ROW:
        case SQLITE_DONE:
            return ERROR_SUCCESS;
        case SQLITE_NOMEM:
            return ERROR_OUTOFMEMORY;
        case SQLITE_TOOBIG:
            return ERROR_NOT_ENOUGH_MEMORY;
        case SQLITE_CANTOPEN:
            return ERROR_CANTOPEN;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return ERROR_BADDB;
        case SQLITE_READONLY:
            return ERROR_ACCESS_DENIED;  // a registry that can only be read
        default:
            return writing ? ERROR_CANTWRITE : ERROR_CANTREAD;
    }
}

int Statement::Prepare(sqlite3* db, const char* sql) {
    Finalize();
    return sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr);
}

void Statement::Finalize() {
    if (stmt_ != nullptr) {
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
    }
}

Transaction::Transaction(Store& store, bool write) : store_(store) {
    if (sqlite3_get_autocommit(store.db()) == 0) {
        if (write) {  // inside a batch or an outer transaction
            status_ = store.Exec(store.savepoint, true);
            savepoint_ = status_ == ERROR_SUCCESS;
        }
        return;
    }
    status_ = store.Exec(write ? store.begin_write : store.begin_read, write);
    owner_ = status_ == ERROR_SUCCESS;
    store.Began();
}

Transaction::~Transaction() {
    if (done_) {
        return;
    }
    if (owner_) {
        store_.Exec(store_.rollback, false);
        store_.DropCache();  // it may hold keys made in the rolled-back work
    } else if (savepoint_) {
        store_.Exec(store_.rollback_to, false);
        store_.Exec(store_.release, false);
        store_.DropCache();
    }
}

DWORD Transaction::Commit() {
    if (done_ || (!owner_ && !savepoint_)) {
        return status_;
    }
    done_ = true;
    if (savepoint_) {
        status_ = store_.Exec(store_.release, true);
        return status_;
    }
    status_ = store_.Exec(store_.commit, true);
    if (status_ != ERROR_SUCCESS) {
        store_.Exec(store_.rollback, false);
        store_.DropCache();
    }
    return status_;
}

Batch::Batch(Work work) : lock_(Store::Get().mutex()) {
    Store& store = Store::Get();
    if (store.Open() != ERROR_SUCCESS || sqlite3_get_autocommit(store.db()) == 0) {
        return;  // no registry, or a batch of this thread goes on
    }
    const bool write = work == kWrite;
    owner_ = store.Exec(write ? store.begin_write : store.begin_read, write) == ERROR_SUCCESS;
    store.Began();
}

Batch::~Batch() {
    Commit();
}

DWORD Batch::Commit() {
    if (!owner_) {
        return ERROR_SUCCESS;
    }
    owner_ = false;
    Store& store = Store::Get();
    if (store.db() == nullptr || sqlite3_get_autocommit(store.db()) != 0) {
        return ERROR_SUCCESS;  // the connection was closed or rolled back underneath
    }
    const DWORD status = store.Exec(store.commit, true);
    if (status != ERROR_SUCCESS) {
        store.Exec(store.rollback, false);
        store.DropCache();
    }
    return status;
}

Store& Store::Get() {
    static Store* store = new Store;  // lives as long as any handle may be closed
    return *store;
}

Store::Store() {
    machine::OnRootChange([this] {
        std::lock_guard lock(mutex_);
        Close();
    });
    // A child made by fork() gets its own connection: the parent's is left
    // alone. Holding the mutex across the fork keeps the state consistent.
    pthread_atfork([] { Get().mutex_.lock(); }, [] { Get().mutex_.unlock(); },
                   [] {
                       Store& store = Get();
                       store.Close(true);
                       // A recursive mutex knows its owner by thread id, which
                       // the child's thread no longer has: it cannot unlock
                       // it, so it starts with a fresh one.
                       new (&store.mutex_) std::recursive_mutex;
                   });
}

void Store::Close(bool abandon) {
    for (const auto& entry : StatementTable()) {
        if (abandon) {
            entry.first->Abandon();
        } else {
            entry.first->Finalize();
        }
    }
    if (db_ != nullptr && !abandon) {
        sqlite3_close_v2(db_);
    }
    db_ = nullptr;
    cache_.clear();
    dataVersion_ = -1;
    keyGeneration_ = -1;
    if (!abandon) {
        ++generation_;  // handles of the old machine are no longer valid
    }
}

DWORD Store::Exec(Statement& stmt, bool writing) {
    Use use(stmt);
    const int rc = sqlite3_step(*use);
    return (rc == SQLITE_DONE || rc == SQLITE_ROW) ? ERROR_SUCCESS : FromSqlite(rc, writing);
}

std::vector<std::pair<Statement*, const char*>> Store::StatementTable() {
    return {
        {&begin_read, "BEGIN"},
        {&begin_write, "BEGIN IMMEDIATE"},
        {&commit, "COMMIT"},
        {&rollback, "ROLLBACK"},
        {&savepoint, "SAVEPOINT nested"},
        {&release, "RELEASE nested"},
        {&rollback_to, "ROLLBACK TO nested"},
        {&dataVersion_stmt_, "PRAGMA data_version"},
        {&keyGen_, "SELECT v FROM meta WHERE k='keygen'"},
        {&bumpKeyGen_, "UPDATE meta SET v=v+1 WHERE k='keygen'"},
        {&child_, "SELECT id FROM keys WHERE parent=?1 AND fold=?2"},
        {&insertKey_, "INSERT INTO keys(parent, name, fold) VALUES(?1, ?2, ?3)"},
        {&keyExists_, "SELECT 1 FROM keys WHERE id=?1"},
        {&hasChildren_, "SELECT 1 FROM keys WHERE parent=?1 LIMIT 1"},
        {&children_, "SELECT id, name FROM keys WHERE parent=?1 ORDER BY fold"},
        {&childAt_, "SELECT name, fold FROM keys WHERE parent=?1 ORDER BY fold LIMIT 1 OFFSET ?2"},
        {&childAfter_,
         "SELECT name, fold FROM keys WHERE parent=?1 AND fold>?2 ORDER BY fold LIMIT 1"},
        {&keyInfo_, "SELECT parent, name FROM keys WHERE id=?1"},
        {&deleteKeyVals_, "DELETE FROM vals WHERE key=?1"},
        {&deleteKey_, "DELETE FROM keys WHERE id=?1"},
        {&query_, "SELECT type, data FROM vals WHERE key=?1 AND fold=?2"},
        {&set_,
         "INSERT INTO vals(key, name, fold, type, data) SELECT ?1, ?2, ?3, ?4, ?5"
         " WHERE EXISTS(SELECT 1 FROM keys WHERE id=?1)"
         " ON CONFLICT(key, fold) DO UPDATE SET type=excluded.type, data=excluded.data"},
        {&deleteVal_, "DELETE FROM vals WHERE key=?1 AND fold=?2"},
        {&valueAt_,
         "SELECT name, type, data, id FROM vals WHERE key=?1 ORDER BY id LIMIT 1 OFFSET ?2"},
        {&valueAfter_,
         "SELECT name, type, data, id FROM vals WHERE key=?1 AND id>?2 ORDER BY id LIMIT 1"},
        {&values_, "SELECT name, type, data FROM vals WHERE key=?1 ORDER BY id"},
    };
}

namespace {

// The file name as an SQLite URI path: every byte but unreserved ones and
// "/" percent-encoded.
std::string UriPath(const std::string& path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : path) {
        const auto u = static_cast<unsigned char>(c);
        if (std::isalnum(u) != 0 || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out.push_back(c);
        } else {
            out += '%';
            out += kHex[u >> 4];
            out += kHex[u & 0xF];
        }
    }
    return out;
}

// Whether a failed open or set-up was the file system refusing writes.
bool WritesRefused(int rc) {
    switch (rc & 0xFF) {
        case SQLITE_READONLY:
        case SQLITE_CANTOPEN:
        case SQLITE_PERM:
        case SQLITE_AUTH:
            return true;
        default:
            return false;
    }
}

}  // namespace

DWORD Store::Open() {
    if (db_ != nullptr) {
        return ERROR_SUCCESS;
    }
    const std::string path = machine::Root() + "/registry.db";
    int rc =
        sqlite3_open_v2(path.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    int setUp = rc;
    if (rc == SQLITE_OK) {
        sqlite3_busy_timeout(db_, kBusyTimeoutMs);
        setUp = Initialize();
        if (setUp == SQLITE_OK) {
            return ERROR_SUCCESS;
        }
        Close();
    } else {
        sqlite3_close_v2(db_);
        db_ = nullptr;
    }
    if (WritesRefused(setUp)) {
        // A machine root that cannot be written can still be read.
        const DWORD error = OpenReadOnly(path);
        if (error != ERROR_CANTOPEN) {
            return error;
        }
    }
    const DWORD error = FromSqlite(setUp, true);
    return error == ERROR_CANTWRITE ? ERROR_CANTOPEN : error;
}

DWORD Store::OpenReadOnly(const std::string& path) {
    constexpr int kFlags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX;
    const bool exists = ::access(path.c_str(), F_OK) == 0;
    if (!exists && errno != ENOENT) {
        return ERROR_CANTOPEN;  // the root is no directory, or cannot be searched
    }
    // A machine that has never been written has an empty registry; reading
    // it finds nothing, as it would once made.
    const std::string uris[] = {
        "file:" + UriPath(path),
        // The write-ahead log's index cannot be made beside a read-only file:
        // taking the file as it stands (no journal, no locks) still reads it.
        "file:" + UriPath(path) + "?immutable=1",
    };
    for (const std::string& uri : uris) {
        int rc = exists ? sqlite3_open_v2(uri.c_str(), &db_, kFlags, nullptr)
                        : sqlite3_open_v2(":memory:", &db_, SQLITE_OPEN_READWRITE, nullptr);
        if (rc == SQLITE_OK) {
            sqlite3_busy_timeout(db_, kBusyTimeoutMs);
            rc = exists ? sqlite3_exec(db_, "SELECT count(*) FROM keys", nullptr, nullptr, nullptr)
                        : Initialize();
        }
        if (rc == SQLITE_OK) {
            rc = sqlite3_exec(db_, "PRAGMA query_only=1", nullptr, nullptr, nullptr);
        }
        if (rc == SQLITE_OK) {
            rc = PrepareStatements();
        }
        if (rc == SQLITE_OK) {
            return ERROR_SUCCESS;
        }
        Close();
        if (!exists) {
            return FromSqlite(rc, false);
        }
    }
    return ERROR_CANTOPEN;
}

int Store::PrepareStatements() {
    for (const auto& [stmt, sql] : StatementTable()) {
        if (const int rc = stmt->Prepare(db_, sql); rc != SQLITE_OK) {
            return rc;
        }
    }
    return SQLITE_OK;
}

int Store::Initialize() {
    // Switching to WAL needs a moment alone with the file; others opening
    // the same fresh machine may hold it briefly.
    int rc = SQLITE_BUSY;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
    while (true) {
        rc = sqlite3_exec(db_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
        if ((rc & 0xFF) != SQLITE_BUSY && (rc & 0xFF) != SQLITE_LOCKED) {
            break;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (rc != SQLITE_OK) {
        return rc;
    }
    rc = sqlite3_exec(db_,
                      "PRAGMA synchronous=NORMAL;"
                      // Fewer, larger checkpoints: a page written by many
                      // commits goes back into the database once.
                      "PRAGMA wal_autocheckpoint=4000;"
                      "BEGIN IMMEDIATE;"
                      "CREATE TABLE IF NOT EXISTS meta(k TEXT PRIMARY KEY, v INTEGER NOT NULL);"
                      "INSERT OR IGNORE INTO meta(k, v) VALUES('keygen', 0);"
                      "CREATE TABLE IF NOT EXISTS keys(id INTEGER PRIMARY KEY AUTOINCREMENT,"
                      " parent INTEGER NOT NULL, name BLOB NOT NULL, fold BLOB NOT NULL);"
                      "CREATE UNIQUE INDEX IF NOT EXISTS keys_by_parent ON keys(parent, fold);"
                      "CREATE TABLE IF NOT EXISTS vals(id INTEGER PRIMARY KEY AUTOINCREMENT,"
                      " key INTEGER NOT NULL, name BLOB NOT NULL, fold BLOB NOT NULL,"
                      " type INTEGER NOT NULL, data BLOB NOT NULL);"
                      "CREATE UNIQUE INDEX IF NOT EXISTS vals_by_key ON vals(key, fold);"
                      "INSERT OR IGNORE INTO keys(id, parent, name, fold) VALUES(1, 0,"
                      " CAST('' AS BLOB), CAST('' AS BLOB));"
                      "COMMIT;",
                      nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return rc;
    }
    rc = PrepareStatements();
    if (rc != SQLITE_OK) {
        return rc;
    }
    KeyId classes = 0;
    return ClassesRoot(&classes) == ERROR_SUCCESS ? SQLITE_OK : SQLITE_ERROR;
}

// The path cache stays valid while no key was deleted: this connection
// clears it itself, and others' deletions show as a changed key generation
// once SQLite reports that the database changed.
DWORD Store::CheckCache() {
    // Inside a transaction nobody else's commit can show: once per
    // transaction is enough.
    const bool inTransaction = sqlite3_get_autocommit(db_) == 0;
    if (inTransaction && checkedIn_ == transactions_) {
        return ERROR_SUCCESS;
    }
    std::int64_t version = 0;
    {
        Use use(dataVersion_stmt_);
        const int rc = sqlite3_step(*use);
        if (rc != SQLITE_ROW) {
            return FromSqlite(rc, false);
        }
        version = sqlite3_column_int64(*use, 0);
    }
    if (inTransaction) {
        checkedIn_ = transactions_;
    }
    if (version == dataVersion_) {
        return ERROR_SUCCESS;
    }
    dataVersion_ = version;
    Changed();
    Use use(keyGen_);
    const int rc = sqlite3_step(*use);
    if (rc != SQLITE_ROW) {
        return FromSqlite(rc, false);
    }
    const std::int64_t keyGeneration = sqlite3_column_int64(*use, 0);
    if (keyGeneration != keyGeneration_) {
        cache_.clear();
        keyGeneration_ = keyGeneration;
    }
    return ERROR_SUCCESS;
}

void Store::SetFold(std::u16string_view name) {
    EncodeFold(name, &fold_);
}

DWORD Store::LookupChild(KeyId parent, std::u16string_view name, KeyId* id) {
    SetFold(name);
    Use use(child_);
    sqlite3_bind_int64(*use, 1, parent);
    BindBytes(*use, 2, fold_);
    const int rc = sqlite3_step(*use);
    if (rc == SQLITE_ROW) {
        *id = sqlite3_column_int64(*use, 0);
        return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? ERROR_FILE_NOT_FOUND : FromSqlite(rc, false);
}

DWORD Store::CheckKey(KeyId id) {
    Use use(keyExists_);
    sqlite3_bind_int64(*use, 1, id);
    const int rc = sqlite3_step(*use);
    if (rc == SQLITE_ROW) {
        return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? ERROR_KEY_DELETED : FromSqlite(rc, false);
}

DWORD Store::Resolve(KeyId base, std::u16string_view path, KeyId* id) {
    std::vector<std::u16string_view> parts;
    if (DWORD error = SplitPath(path, false, &parts); error != ERROR_SUCCESS) {
        return error;
    }
    if (DWORD error = CheckCache(); error != ERROR_SUCCESS) {
        return error;
    }
    if (parts.empty()) {
        *id = base;
        return CheckKey(base);
    }
    // The cache keys of every leading part of the path, shortest first.
    std::vector<std::string> prefixes;
    prefixes.reserve(parts.size());
    std::string cacheKey(reinterpret_cast<const char*>(&base), sizeof base);
    for (auto part : parts) {
        const std::u16string fold = Fold(part);
        cacheKey.push_back('\\');
        cacheKey.append(reinterpret_cast<const char*>(fold.data()), fold.size() * 2);
        prefixes.push_back(cacheKey);
    }
    // The walk starts below the longest leading part already known, so that
    // looking for a key that does not exist, or again after a deletion, costs
    // only the parts not yet known.
    std::size_t known = parts.size();
    KeyId current = base;
    while (known > 0) {
        if (auto it = cache_.find(prefixes[known - 1]); it != cache_.end()) {
            current = it->second;
            break;
        }
        --known;
    }
    if (known == parts.size()) {
        *id = current;
        return ERROR_SUCCESS;
    }
    Transaction txn(*this, false);  // one consistent view of the whole walk
    if (txn.status() != ERROR_SUCCESS) {
        return txn.status();
    }
    if (cache_.size() > 4096) {
        cache_.clear();
    }
    for (std::size_t i = known; i < parts.size(); ++i) {
        const DWORD error = LookupChild(current, parts[i], &current);
        if (error == ERROR_FILE_NOT_FOUND && i == 0 && CheckKey(base) != ERROR_SUCCESS) {
            return ERROR_KEY_DELETED;
        }
        if (error != ERROR_SUCCESS) {
            return error;
        }
        cache_.emplace(prefixes[i], current);
    }
    *id = current;
    return txn.Commit();
}

DWORD Store::Create(KeyId base, std::u16string_view path, KeyId* id, bool* created) {
    Changed();
    std::vector<std::u16string_view> parts;
    if (DWORD error = SplitPath(path, true, &parts); error != ERROR_SUCCESS) {
        return error;
    }
    *created = false;
    if (parts.empty()) {
        *id = base;
        return CheckKey(base);
    }
    Transaction txn(*this, true);
    if (txn.status() != ERROR_SUCCESS) {
        return txn.status();
    }
    if (DWORD error = CheckKey(base); error != ERROR_SUCCESS) {
        return error;
    }
    KeyId current = base;
    for (auto part : parts) {
        KeyId child = 0;
        DWORD error = LookupChild(current, part, &child);
        *created = error == ERROR_FILE_NOT_FOUND;
        if (*created) {
            Use use(insertKey_);
            sqlite3_bind_int64(*use, 1, current);
            BindName(*use, 2, part);
            BindBytes(*use, 3, fold_);
            const int rc = sqlite3_step(*use);
            if (rc != SQLITE_DONE) {
                return FromSqlite(rc, true);
            }
            child = sqlite3_last_insert_rowid(db_);
        } else if (error != ERROR_SUCCESS) {
            return error;
        }
        current = child;
    }
    *id = current;
    return txn.Commit();
}

DWORD Store::ClassesRoot(KeyId* id) {
    if (Resolve(kMachineKey, u"SOFTWARE\\Classes", id) == ERROR_SUCCESS) {
        return ERROR_SUCCESS;
    }
    bool created = false;
    return Create(kMachineKey, u"SOFTWARE\\Classes", id, &created);
}

DWORD Store::Query(KeyId key, std::u16string_view name, DWORD* type, void* data, DWORD* size) {
    SetFold(name);
    Use use(query_);
    sqlite3_bind_int64(*use, 1, key);
    BindBytes(*use, 2, fold_);
    const int rc = sqlite3_step(*use);
    if (rc == SQLITE_DONE) {
        const DWORD error = CheckKey(key);
        return error == ERROR_SUCCESS ? ERROR_FILE_NOT_FOUND : error;
    }
    if (rc != SQLITE_ROW) {
        return FromSqlite(rc, false);
    }
    if (type != nullptr) {
        *type = static_cast<DWORD>(sqlite3_column_int64(*use, 0));
    }
    const void* blob = sqlite3_column_blob(*use, 1);
    const auto bytes = static_cast<DWORD>(sqlite3_column_bytes(*use, 1));
    DWORD error = ERROR_SUCCESS;
    if (data != nullptr) {
        if (*size < bytes) {
            error = ERROR_MORE_DATA;
        } else if (bytes != 0) {
            std::memcpy(data, blob, bytes);
        }
    }
    if (size != nullptr) {
        *size = bytes;
    }
    return error;
}

DWORD Store::GetValue(KeyId key, std::u16string_view name, RegistryValue* value) {
    SetFold(name);
    Use use(query_);
    sqlite3_bind_int64(*use, 1, key);
    BindBytes(*use, 2, fold_);
    const int rc = sqlite3_step(*use);
    if (rc == SQLITE_DONE) {
        const DWORD error = CheckKey(key);
        return error == ERROR_SUCCESS ? ERROR_FILE_NOT_FOUND : error;
    }
    if (rc != SQLITE_ROW) {
        return FromSqlite(rc, false);
    }
    value->name.assign(name);
    value->type = static_cast<DWORD>(sqlite3_column_int64(*use, 0));
    value->data = ColumnBytes(*use, 1);
    return ERROR_SUCCESS;
}

DWORD Store::SetValue(KeyId key, std::u16string_view name, DWORD type, const void* data,
                      DWORD size) {
    Changed();
    SetFold(name);
    Use use(set_);
    sqlite3_bind_int64(*use, 1, key);
    BindName(*use, 2, name);
    BindBytes(*use, 3, fold_);
    sqlite3_bind_int64(*use, 4, type);
    sqlite3_bind_blob64(*use, 5, size == 0 ? kEmpty : data, size, SQLITE_STATIC);
    const int rc = sqlite3_step(*use);
    if (rc != SQLITE_DONE) {
        return FromSqlite(rc, true);
    }
    return sqlite3_changes(db_) == 0 ? ERROR_KEY_DELETED : ERROR_SUCCESS;
}

DWORD Store::DeleteValue(KeyId key, std::u16string_view name) {
    Changed();
    SetFold(name);
    Use use(deleteVal_);
    sqlite3_bind_int64(*use, 1, key);
    BindBytes(*use, 2, fold_);
    const int rc = sqlite3_step(*use);
    if (rc != SQLITE_DONE) {
        return FromSqlite(rc, true);
    }
    if (sqlite3_changes(db_) != 0) {
        return ERROR_SUCCESS;
    }
    const DWORD error = CheckKey(key);
    return error == ERROR_SUCCESS ? ERROR_FILE_NOT_FOUND : error;
}

DWORD Store::ValueAt(KeyId key, DWORD index, RegistryValue* value, EnumCursor* cursor) {
    if (DWORD error = CheckCache(); error != ERROR_SUCCESS) {
        return error;
    }
    const bool follow = cursor != nullptr && cursor->valid && cursor->stamp == changeStamp_ &&
                        index == cursor->index + 1;
    Use use(follow ? valueAfter_ : valueAt_);
    sqlite3_bind_int64(*use, 1, key);
    sqlite3_bind_int64(*use, 2, follow ? cursor->valueId : static_cast<std::int64_t>(index));
    const int rc = sqlite3_step(*use);
    if (rc == SQLITE_DONE) {
        const DWORD error = CheckKey(key);
        return error == ERROR_SUCCESS ? ERROR_NO_MORE_ITEMS : error;
    }
    if (rc != SQLITE_ROW) {
        return FromSqlite(rc, false);
    }
    value->name = ColumnName(*use, 0);
    value->type = static_cast<DWORD>(sqlite3_column_int64(*use, 1));
    value->data = ColumnBytes(*use, 2);
    if (cursor != nullptr) {
        *cursor = EnumCursor{true, index, changeStamp_, {}, sqlite3_column_int64(*use, 3)};
    }
    return ERROR_SUCCESS;
}

DWORD Store::Values(KeyId key, std::vector<RegistryValue>* values) {
    Transaction txn(*this, false);
    if (txn.status() != ERROR_SUCCESS) {
        return txn.status();
    }
    if (DWORD error = CheckKey(key); error != ERROR_SUCCESS) {
        return error;
    }
    values->clear();
    Use use(values_);
    sqlite3_bind_int64(*use, 1, key);
    int rc = SQLITE_OK;
    while ((rc = sqlite3_step(*use)) == SQLITE_ROW) {
        RegistryValue value;
        value.name = ColumnName(*use, 0);
        value.type = static_cast<DWORD>(sqlite3_column_int64(*use, 1));
        value.data = ColumnBytes(*use, 2);
        values->push_back(std::move(value));
    }
    return rc == SQLITE_DONE ? txn.Commit() : FromSqlite(rc, false);
}

DWORD Store::SubKeyAt(KeyId key, DWORD index, std::u16string* name, EnumCursor* cursor) {
    if (DWORD error = CheckCache(); error != ERROR_SUCCESS) {
        return error;
    }
    const bool follow = cursor != nullptr && cursor->valid && cursor->stamp == changeStamp_ &&
                        index == cursor->index + 1;
    Use use(follow ? childAfter_ : childAt_);
    sqlite3_bind_int64(*use, 1, key);
    if (follow) {
        BindBytes(*use, 2, cursor->fold);
    } else {
        sqlite3_bind_int64(*use, 2, index);
    }
    const int rc = sqlite3_step(*use);
    if (rc == SQLITE_DONE) {
        const DWORD error = CheckKey(key);
        return error == ERROR_SUCCESS ? ERROR_NO_MORE_ITEMS : error;
    }
    if (rc != SQLITE_ROW) {
        return FromSqlite(rc, false);
    }
    *name = ColumnName(*use, 0);
    if (cursor != nullptr) {
        const auto* fold = static_cast<const char*>(sqlite3_column_blob(*use, 1));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(*use, 1));
        cursor->valid = true;
        cursor->index = index;
        cursor->stamp = changeStamp_;
        cursor->fold.assign(fold == nullptr ? "" : fold, fold == nullptr ? 0 : size);
    }
    return ERROR_SUCCESS;
}

DWORD Store::SubKeys(KeyId key, std::vector<std::pair<KeyId, std::u16string>>* keys) {
    Transaction txn(*this, false);
    if (txn.status() != ERROR_SUCCESS) {
        return txn.status();
    }
    if (DWORD error = CheckKey(key); error != ERROR_SUCCESS) {
        return error;
    }
    keys->clear();
    Use use(children_);
    sqlite3_bind_int64(*use, 1, key);
    int rc = SQLITE_OK;
    while ((rc = sqlite3_step(*use)) == SQLITE_ROW) {
        keys->emplace_back(sqlite3_column_int64(*use, 0), ColumnName(*use, 1));
    }
    return rc == SQLITE_DONE ? txn.Commit() : FromSqlite(rc, false);
}

DWORD Store::BumpKeyGeneration(const std::vector<KeyId>& removed) {
    std::int64_t stored = -1;
    {
        Use use(keyGen_);
        const int rc = sqlite3_step(*use);
        if (rc != SQLITE_ROW) {
            return FromSqlite(rc, false);
        }
        stored = sqlite3_column_int64(*use, 0);
    }
    if (DWORD error = Exec(bumpKeyGen_, true); error != ERROR_SUCCESS) {
        return error;
    }
    if (stored != keyGeneration_) {
        // Others deleted keys too, unseen so far: nothing cached can be trusted.
        cache_.clear();
    } else {
        // Only this deletion happened since the cache was last checked: the
        // paths that still lead to live keys stay.
        const std::unordered_set<KeyId> gone(removed.begin(), removed.end());
        std::erase_if(cache_, [&gone](const auto& entry) { return gone.contains(entry.second); });
    }
    keyGeneration_ = stored + 1;
    return ERROR_SUCCESS;
}

DWORD Store::RemoveKey(KeyId key) {
    for (Statement* s : {&deleteKeyVals_, &deleteKey_}) {
        Use use(*s);
        sqlite3_bind_int64(*use, 1, key);
        const int rc = sqlite3_step(*use);
        if (rc != SQLITE_DONE) {
            return FromSqlite(rc, true);
        }
    }
    return ERROR_SUCCESS;
}

DWORD Store::DeleteKey(KeyId key) {
    Changed();
    if (key == kMachineKey) {
        return ERROR_ACCESS_DENIED;
    }
    Transaction txn(*this, true);
    if (txn.status() != ERROR_SUCCESS) {
        return txn.status();
    }
    if (DWORD error = CheckKey(key); error != ERROR_SUCCESS) {
        return error;
    }
    {
        Use use(hasChildren_);
        sqlite3_bind_int64(*use, 1, key);
        const int rc = sqlite3_step(*use);
        if (rc == SQLITE_ROW) {
            return ERROR_ACCESS_DENIED;
        }
        if (rc != SQLITE_DONE) {
            return FromSqlite(rc, false);
        }
    }
    if (DWORD error = RemoveKey(key); error != ERROR_SUCCESS) {
        return error;
    }
    if (DWORD error = BumpKeyGeneration({key}); error != ERROR_SUCCESS) {
        return error;
    }
    return txn.Commit();
}

DWORD Store::Descendants(KeyId key, std::vector<KeyId>* ids) {
    // Breadth first: every key's children after it.
    std::vector<KeyId> frontier{key};
    while (!frontier.empty()) {
        std::vector<KeyId> nextLevel;
        for (KeyId parent : frontier) {
            Use use(children_);
            sqlite3_bind_int64(*use, 1, parent);
            int rc = SQLITE_OK;
            while ((rc = sqlite3_step(*use)) == SQLITE_ROW) {
                nextLevel.push_back(sqlite3_column_int64(*use, 0));
            }
            if (rc != SQLITE_DONE) {
                return FromSqlite(rc, false);
            }
        }
        ids->insert(ids->end(), nextLevel.begin(), nextLevel.end());
        frontier = std::move(nextLevel);
    }
    return ERROR_SUCCESS;
}

DWORD Store::DeleteTree(KeyId key, bool includeKey) {
    Changed();
    if (includeKey && key == kMachineKey) {
        return ERROR_ACCESS_DENIED;
    }
    Transaction txn(*this, true);
    if (txn.status() != ERROR_SUCCESS) {
        return txn.status();
    }
    if (DWORD error = CheckKey(key); error != ERROR_SUCCESS) {
        return error;
    }
    std::vector<KeyId> ids;
    if (DWORD error = Descendants(key, &ids); error != ERROR_SUCCESS) {
        return error;
    }
    for (KeyId id : ids) {
        if (DWORD error = RemoveKey(id); error != ERROR_SUCCESS) {
            return error;
        }
    }
    if (includeKey) {
        if (DWORD error = RemoveKey(key); error != ERROR_SUCCESS) {
            return error;
        }
        ids.push_back(key);
    } else {
        Use use(deleteKeyVals_);
        sqlite3_bind_int64(*use, 1, key);
        if (const int rc = sqlite3_step(*use); rc != SQLITE_DONE) {
            return FromSqlite(rc, true);
        }
    }
    if (DWORD error = BumpKeyGeneration(ids); error != ERROR_SUCCESS) {
        return error;
    }
    return txn.Commit();
}

DWORD Store::PathBelow(KeyId key, KeyId top, std::u16string* path) {
    std::vector<std::u16string> names;
    for (KeyId current = key; current != top;) {
        if (current == kMachineKey || current == 0) {
            return ERROR_INVALID_PARAMETER;  // not below `top`
        }
        Use use(keyInfo_);
        sqlite3_bind_int64(*use, 1, current);
        const int rc = sqlite3_step(*use);
        if (rc == SQLITE_DONE) {
            return ERROR_KEY_DELETED;
        }
        if (rc != SQLITE_ROW) {
            return FromSqlite(rc, false);
        }
        names.push_back(ColumnName(*use, 1));
        current = sqlite3_column_int64(*use, 0);
    }
    path->clear();
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        if (!path->empty()) {
            path->push_back(u'\\');
        }
        *path += *it;
    }
    return ERROR_SUCCESS;
}

}  // namespace platform::registry_store

#include "service/SqliteDatabase.h"

#include <sqlite3.h>

namespace {

[[noreturn]] void fail(sqlite3 *db, const std::string &what)
{
    throw StoreError(what + ": " + (db ? sqlite3_errmsg(db) : "out of memory"));
}

} // namespace

SqliteDatabase::SqliteDatabase(const std::string &path, bool readOnly)
{
    const int mode = readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    if (sqlite3_open_v2(path.c_str(), &m_db, mode | SQLITE_OPEN_FULLMUTEX, nullptr) != SQLITE_OK) {
        const std::string message = m_db ? sqlite3_errmsg(m_db) : "out of memory";
        sqlite3_close(m_db);
        throw StoreError("Cannot open the records at " + path + ": " + message);
    }
    sqlite3_busy_timeout(m_db, 5000);
    if (readOnly)
        return;
    execute("PRAGMA journal_mode=WAL");
    // Every commit reaches the disk before the reply that reports it goes out.
    execute("PRAGMA synchronous=FULL");
    execute("PRAGMA foreign_keys=ON");
}

SqliteDatabase::~SqliteDatabase()
{
    sqlite3_close(m_db);
}

void SqliteDatabase::execute(const char *sql)
{
    char *error = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string message = error ? error : "unknown error";
        sqlite3_free(error);
        throw StoreError(std::string("SQLite: ") + message);
    }
}

int SqliteDatabase::changes() const
{
    return sqlite3_changes(m_db);
}

SqliteStatement::SqliteStatement(SqliteDatabase &db, const char *sql)
    : m_db(db)
{
    if (sqlite3_prepare_v2(db.handle(), sql, -1, &m_statement, nullptr) != SQLITE_OK)
        fail(db.handle(), "SQLite prepare");
}

SqliteStatement::~SqliteStatement()
{
    sqlite3_finalize(m_statement);
}

SqliteStatement &SqliteStatement::bind(int index, const std::string &value)
{
    if (sqlite3_bind_text(m_statement, index, value.data(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK)
        fail(m_db.handle(), "SQLite bind");
    return *this;
}

SqliteStatement &SqliteStatement::bind(int index, int64_t value)
{
    if (sqlite3_bind_int64(m_statement, index, value) != SQLITE_OK)
        fail(m_db.handle(), "SQLite bind");
    return *this;
}

SqliteStatement &SqliteStatement::bindNull(int index)
{
    if (sqlite3_bind_null(m_statement, index) != SQLITE_OK)
        fail(m_db.handle(), "SQLite bind");
    return *this;
}

bool SqliteStatement::step()
{
    const int result = sqlite3_step(m_statement);
    if (result == SQLITE_ROW)
        return true;
    if (result == SQLITE_DONE)
        return false;
    fail(m_db.handle(), "SQLite step");
}

void SqliteStatement::run()
{
    while (step()) { }
}

std::string SqliteStatement::text(int column) const
{
    const auto *value = sqlite3_column_text(m_statement, column);
    const int size = sqlite3_column_bytes(m_statement, column);
    return value ? std::string(reinterpret_cast<const char *>(value), static_cast<size_t>(size))
                 : std::string();
}

int64_t SqliteStatement::integer(int column) const
{
    return sqlite3_column_int64(m_statement, column);
}

bool SqliteStatement::isNull(int column) const
{
    return sqlite3_column_type(m_statement, column) == SQLITE_NULL;
}

SqliteTransaction::SqliteTransaction(SqliteDatabase &db)
    : m_db(db)
{
    m_db.execute("BEGIN IMMEDIATE");
}

SqliteTransaction::~SqliteTransaction()
{
    if (!m_done) {
        try {
            m_db.execute("ROLLBACK");
        } catch (const StoreError &) {
            // Nothing more to undo: SQLite rolls back on its own when a statement failed hard.
        }
    }
}

void SqliteTransaction::commit()
{
    m_db.execute("COMMIT");
    m_done = true;
}

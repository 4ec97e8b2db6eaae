#pragma once

#include "service/RecordStore.h"

#include <cstdint>
#include <optional>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

// A thin owner of one SQLite connection and its prepared statements. Every failure becomes a
// StoreError carrying SQLite's own message.
class SqliteDatabase
{
public:
    // Opens (creating) the file in WAL mode with foreign keys on, and waits up to five seconds
    // for a lock another process holds (the command line writes while the server runs).
    // `readOnly` opens an existing file for reading and changes nothing in it.
    explicit SqliteDatabase(const std::string &path, bool readOnly = false);
    ~SqliteDatabase();
    SqliteDatabase(const SqliteDatabase &) = delete;
    SqliteDatabase &operator=(const SqliteDatabase &) = delete;

    void execute(const char *sql);
    int changes() const;
    sqlite3 *handle() const { return m_db; }

private:
    sqlite3 *m_db = nullptr;
};

// One prepared statement, bound by position from 1, stepped row by row.
class SqliteStatement
{
public:
    SqliteStatement(SqliteDatabase &db, const char *sql);
    ~SqliteStatement();
    SqliteStatement(const SqliteStatement &) = delete;
    SqliteStatement &operator=(const SqliteStatement &) = delete;

    SqliteStatement &bind(int index, const std::string &value);
    SqliteStatement &bind(int index, int64_t value);
    SqliteStatement &bindNull(int index);

    // True while there is a row to read.
    bool step();
    // Steps to the end; for statements that return no rows.
    void run();

    std::string text(int column) const;
    int64_t integer(int column) const;
    bool isNull(int column) const;

private:
    SqliteDatabase &m_db;
    sqlite3_stmt *m_statement = nullptr;
};

// BEGIN IMMEDIATE on construction, ROLLBACK unless commit() was called.
class SqliteTransaction
{
public:
    explicit SqliteTransaction(SqliteDatabase &db);
    ~SqliteTransaction();
    void commit();

private:
    SqliteDatabase &m_db;
    bool m_done = false;
};

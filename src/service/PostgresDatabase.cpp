#include "service/PostgresDatabase.h"

#include <libpq-fe.h>

#include <cstdio>
#include <cstdlib>

namespace {

std::string messageOf(pg_conn *connection)
{
    std::string message = connection ? PQerrorMessage(connection) : "out of memory";
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
        message.pop_back();
    return message;
}

} // namespace

PgResult::PgResult(pg_result *result)
    : m_result(result)
{
}

PgResult::~PgResult()
{
    PQclear(m_result);
}

PgResult::PgResult(PgResult &&other) noexcept
    : m_result(other.m_result)
{
    other.m_result = nullptr;
}

int PgResult::rows() const
{
    return PQntuples(m_result);
}

int PgResult::changed() const
{
    return std::atoi(PQcmdTuples(m_result));
}

std::string PgResult::text(int row, int column) const
{
    return std::string(PQgetvalue(m_result, row, column),
                       size_t(PQgetlength(m_result, row, column)));
}

int64_t PgResult::integer(int row, int column) const
{
    return std::strtoll(PQgetvalue(m_result, row, column), nullptr, 10);
}

bool PgResult::isNull(int row, int column) const
{
    return PQgetisnull(m_result, row, column) != 0;
}

PgParams::PgParams(std::initializer_list<std::optional<std::string>> values)
    : m_values(values)
{
}

PgParams &PgParams::add(std::optional<std::string> value)
{
    m_values.push_back(std::move(value));
    return *this;
}

PgParams &PgParams::add(int64_t value)
{
    m_values.push_back(std::to_string(value));
    return *this;
}

PgParams &PgParams::add(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    m_values.push_back(std::string(text));
    return *this;
}

PostgresDatabase::PostgresDatabase(std::string url, int maxConnections)
    : m_url(std::move(url))
    , m_maxConnections(std::max(1, maxConnections))
{
    pg_conn *first = connect();
    {
        std::scoped_lock lock(m_mutex);
        m_open = 1;
    }
    giveBack(first);
}

PostgresDatabase::~PostgresDatabase()
{
    for (pg_conn *connection : m_idle)
        PQfinish(connection);
}

pg_conn *PostgresDatabase::connect()
{
    pg_conn *connection = PQconnectdb(m_url.c_str());
    if (!connection || PQstatus(connection) != CONNECTION_OK) {
        const std::string message = messageOf(connection);
        PQfinish(connection);
        throw StoreError("Cannot reach the records at " + withoutPassword(m_url) + ": " + message);
    }
    // Notices (a table that exists already) are not the operator's concern.
    PQsetNoticeProcessor(
        connection, [](void *, const char *) {}, nullptr);
    return connection;
}

std::unique_ptr<PostgresDatabase::Session> PostgresDatabase::session()
{
    pg_conn *connection = nullptr;
    {
        std::unique_lock lock(m_mutex);
        m_returned.wait(lock, [&] { return !m_idle.empty() || m_open < m_maxConnections; });
        if (!m_idle.empty()) {
            connection = m_idle.back();
            m_idle.pop_back();
        } else {
            ++m_open;
        }
    }
    if (connection && PQstatus(connection) != CONNECTION_OK)
        PQreset(connection);
    try {
        if (!connection)
            connection = connect();
        else if (PQstatus(connection) != CONNECTION_OK)
            throw StoreError("Lost the records at " + withoutPassword(m_url) + ": " +
                             messageOf(connection));
    } catch (...) {
        PQfinish(connection);
        std::scoped_lock lock(m_mutex);
        --m_open;
        m_returned.notify_one();
        throw;
    }
    return std::unique_ptr<Session>(new Session(*this, connection));
}

void PostgresDatabase::giveBack(pg_conn *connection)
{
    // A call that threw inside a transaction leaves it to be rolled back here; a connection that
    // broke is closed, and the next borrower opens a new one.
    if (PQstatus(connection) == CONNECTION_OK && PQtransactionStatus(connection) != PQTRANS_IDLE)
        PQclear(PQexec(connection, "ROLLBACK"));
    std::scoped_lock lock(m_mutex);
    if (PQstatus(connection) == CONNECTION_OK && PQtransactionStatus(connection) == PQTRANS_IDLE) {
        m_idle.push_back(connection);
    } else {
        PQfinish(connection);
        --m_open;
    }
    m_returned.notify_one();
}

std::string PostgresDatabase::withoutPassword(const std::string &url)
{
    const size_t scheme = url.find("://");
    const size_t at = url.find('@', scheme == std::string::npos ? 0 : scheme + 3);
    if (scheme == std::string::npos || at == std::string::npos)
        return url;
    const size_t colon = url.find(':', scheme + 3);
    if (colon == std::string::npos || colon > at)
        return url;
    return url.substr(0, colon) + url.substr(at);
}

PostgresDatabase::Session::Session(PostgresDatabase &database, pg_conn *connection)
    : m_database(database)
    , m_connection(connection)
{
}

PostgresDatabase::Session::~Session()
{
    m_database.giveBack(m_connection);
}

PgResult PostgresDatabase::Session::run(const char *sql, const PgParams &params)
{
    std::vector<const char *> values;
    for (const std::optional<std::string> &value : params.values())
        values.push_back(value ? value->c_str() : nullptr);
    PgResult result(PQexecParams(m_connection, sql, int(values.size()), nullptr, values.data(),
                                 nullptr, nullptr, 0));
    const ExecStatusType status = PQresultStatus(result.m_result);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)
        throw StoreError("PostgreSQL: " + messageOf(m_connection));
    return result;
}

void PostgresDatabase::Session::script(const char *sql)
{
    PgResult result(PQexec(m_connection, sql));
    const ExecStatusType status = PQresultStatus(result.m_result);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)
        throw StoreError("PostgreSQL: " + messageOf(m_connection));
}

PgTransaction::PgTransaction(PostgresDatabase::Session &session, const char *begin)
    : m_session(session)
{
    m_session.script(begin);
}

PgTransaction::~PgTransaction()
{
    if (!m_done) {
        try {
            m_session.script("ROLLBACK");
        } catch (const StoreError &) {
            // The connection went; its transaction went with it.
        }
    }
}

void PgTransaction::commit()
{
    m_session.script("COMMIT");
    m_done = true;
}

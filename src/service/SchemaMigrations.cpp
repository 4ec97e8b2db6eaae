#include "service/SchemaMigrations.h"

namespace {

// SQLite keeps the order of insertion in its rowid; PostgreSQL is given a column for it (`seq`),
// so that lists come out in the same order from both. Emails are unique without letter case in
// both (SQLite's NOCASE, PostgreSQL's index on lower()).
constexpr const char *tablesSqlite = R"sql(
CREATE TABLE IF NOT EXISTS users (
    id TEXT PRIMARY KEY,
    email TEXT NOT NULL UNIQUE COLLATE NOCASE,
    name TEXT NOT NULL,
    vantrel_code TEXT NOT NULL UNIQUE,
    password_hash TEXT NOT NULL,
    created_at INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS tokens (
    hash TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    kind TEXT NOT NULL,
    created_at INTEGER NOT NULL,
    expires_at INTEGER NOT NULL,
    revoked_at INTEGER
);
CREATE INDEX IF NOT EXISTS tokens_by_user ON tokens(user_id);
CREATE TABLE IF NOT EXISTS device_codes (
    code TEXT PRIMARY KEY,
    created_at INTEGER NOT NULL,
    expires_at INTEGER NOT NULL,
    user_id TEXT REFERENCES users(id) ON DELETE CASCADE,
    approved_at INTEGER,
    claimed_at INTEGER
);
CREATE TABLE IF NOT EXISTS clips (
    id TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    name TEXT NOT NULL,
    size_bytes INTEGER NOT NULL,
    width INTEGER NOT NULL,
    height INTEGER NOT NULL,
    duration_ms INTEGER NOT NULL,
    has_poster INTEGER NOT NULL,
    created_at INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS clips_by_user ON clips(user_id);
CREATE TABLE IF NOT EXISTS packs (
    id TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    title TEXT NOT NULL,
    created_at INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS pack_clips (
    pack_id TEXT NOT NULL REFERENCES packs(id) ON DELETE CASCADE,
    position INTEGER NOT NULL,
    clip_id TEXT NOT NULL REFERENCES clips(id) ON DELETE CASCADE,
    PRIMARY KEY (pack_id, position)
);
CREATE INDEX IF NOT EXISTS pack_clips_by_clip ON pack_clips(clip_id);
CREATE TABLE IF NOT EXISTS releases (
    version TEXT PRIMARY KEY,
    notes TEXT NOT NULL,
    file_name TEXT NOT NULL UNIQUE,
    signature TEXT NOT NULL,
    size_bytes INTEGER NOT NULL,
    created_at INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS settings (
    key TEXT PRIMARY KEY,
    value TEXT NOT NULL
);
)sql";

constexpr const char *tablesPostgres = R"sql(
CREATE TABLE users (
    id TEXT PRIMARY KEY,
    email TEXT NOT NULL,
    name TEXT NOT NULL,
    vantrel_code TEXT NOT NULL UNIQUE,
    password_hash TEXT NOT NULL,
    created_at BIGINT NOT NULL
);
CREATE UNIQUE INDEX users_by_email ON users (lower(email));
CREATE TABLE tokens (
    hash TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    kind TEXT NOT NULL,
    created_at BIGINT NOT NULL,
    expires_at BIGINT NOT NULL,
    revoked_at BIGINT
);
CREATE INDEX tokens_by_user ON tokens(user_id);
CREATE TABLE device_codes (
    code TEXT PRIMARY KEY,
    created_at BIGINT NOT NULL,
    expires_at BIGINT NOT NULL,
    user_id TEXT REFERENCES users(id) ON DELETE CASCADE,
    approved_at BIGINT,
    claimed_at BIGINT
);
CREATE TABLE clips (
    seq BIGINT GENERATED ALWAYS AS IDENTITY,
    id TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    name TEXT NOT NULL,
    size_bytes BIGINT NOT NULL,
    width INTEGER NOT NULL,
    height INTEGER NOT NULL,
    duration_ms BIGINT NOT NULL,
    has_poster INTEGER NOT NULL,
    created_at BIGINT NOT NULL
);
CREATE INDEX clips_by_user ON clips(user_id);
CREATE TABLE packs (
    seq BIGINT GENERATED ALWAYS AS IDENTITY,
    id TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    title TEXT NOT NULL,
    created_at BIGINT NOT NULL
);
CREATE TABLE pack_clips (
    pack_id TEXT NOT NULL REFERENCES packs(id) ON DELETE CASCADE,
    position INTEGER NOT NULL,
    clip_id TEXT NOT NULL REFERENCES clips(id) ON DELETE CASCADE,
    PRIMARY KEY (pack_id, position)
);
CREATE INDEX pack_clips_by_clip ON pack_clips(clip_id);
CREATE TABLE releases (
    seq BIGINT GENERATED ALWAYS AS IDENTITY,
    version TEXT PRIMARY KEY,
    notes TEXT NOT NULL,
    file_name TEXT NOT NULL UNIQUE,
    signature TEXT NOT NULL,
    size_bytes BIGINT NOT NULL,
    created_at BIGINT NOT NULL
);
CREATE TABLE settings (
    key TEXT PRIMARY KEY,
    value TEXT NOT NULL
);
)sql";

// Notes that a clip was taken down, so that its links say so.
constexpr const char *deletedClipsSqlite = R"sql(
CREATE TABLE IF NOT EXISTS deleted_clips (
    id TEXT PRIMARY KEY,
    deleted_at INTEGER NOT NULL
);
)sql";

constexpr const char *deletedClipsPostgres = R"sql(
CREATE TABLE deleted_clips (
    id TEXT PRIMARY KEY,
    deleted_at BIGINT NOT NULL
);
)sql";

// The rate limits' buckets, for servers that share their records: one process alone keeps them
// in memory. Losing them in a crash costs nothing, so PostgreSQL skips its log for them.
constexpr const char *rateBucketsPostgres = R"sql(
CREATE UNLOGGED TABLE rate_buckets (
    name TEXT NOT NULL,
    key TEXT NOT NULL,
    tokens DOUBLE PRECISION NOT NULL,
    updated_at DOUBLE PRECISION NOT NULL,
    PRIMARY KEY (name, key)
);
)sql";

} // namespace

namespace SchemaMigrations {

const std::vector<Step> &steps()
{
    static const std::vector<Step> list {
        {1, tablesSqlite, tablesPostgres},
        {2, deletedClipsSqlite, deletedClipsPostgres},
        {3, nullptr, rateBucketsPostgres},
    };
    return list;
}

int latest()
{
    return steps().back().version;
}

} // namespace SchemaMigrations

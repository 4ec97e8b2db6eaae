#include "service/SqliteRecordStore.h"

#include "service/SchemaMigrations.h"

namespace {

UserRecord readUser(const SqliteStatement &row)
{
    return {row.text(0), row.text(1), row.text(2), row.text(3), row.text(4), row.integer(5)};
}

constexpr const char *userColumns = "id, email, name, vantrel_code, password_hash, created_at";

ClipRecord readClip(const SqliteStatement &row)
{
    ClipRecord clip;
    clip.id = row.text(0);
    clip.userId = row.text(1);
    clip.name = row.text(2);
    clip.sizeBytes = row.integer(3);
    clip.width = static_cast<int>(row.integer(4));
    clip.height = static_cast<int>(row.integer(5));
    clip.durationMs = row.integer(6);
    clip.hasPoster = row.integer(7) != 0;
    clip.createdAt = row.integer(8);
    return clip;
}

constexpr const char *clipColumns =
    "id, user_id, name, size_bytes, width, height, duration_ms, has_poster, created_at";

ReleaseRecord readRelease(const SqliteStatement &row)
{
    return {row.text(0), row.text(1), row.text(2), row.text(3), row.integer(4), row.integer(5)};
}

constexpr const char *releaseColumns =
    "version, notes, file_name, signature, size_bytes, created_at";

std::string select(const char *columns, const char *rest)
{
    return std::string("SELECT ") + columns + " " + rest;
}

} // namespace

SqliteRecordStore::SqliteRecordStore(const std::string &path)
    : m_db(path)
{
    std::scoped_lock lock(m_mutex);
    // One writer at a time: a server and a command started together migrate once.
    SqliteTransaction transaction(m_db);
    const int64_t version = [&] {
        SqliteStatement query(m_db, "PRAGMA user_version");
        return query.step() ? query.integer(0) : 0;
    }();
    if (version > SchemaMigrations::latest())
        throw StoreError("The records at " + path + " were written by a newer vantrel-service (" +
                         std::to_string(version) + "; this one knows up to " +
                         std::to_string(SchemaMigrations::latest()) + ").");
    for (const SchemaMigrations::Step &step : SchemaMigrations::steps())
        if (step.version > version && step.sqlite)
            m_db.execute(step.sqlite);
    m_db.execute(("PRAGMA user_version = " + std::to_string(SchemaMigrations::latest())).c_str());
    transaction.commit();
}

SqliteRecordStore::SqliteRecordStore(const std::string &path, ReadOnly)
    : m_db(path, true)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, "PRAGMA user_version");
    const int64_t version = query.step() ? query.integer(0) : 0;
    // Every table this service reads is there from the second version on.
    if (version < 2 || version > SchemaMigrations::latest())
        throw StoreError("The records at " + path + " are of a version (" +
                         std::to_string(version) +
                         ") this vantrel-service cannot move; start the server once on them "
                         "first.");
}

bool SqliteRecordStore::addUser(const UserRecord &user)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement insert(m_db,
                           "INSERT OR IGNORE INTO users (id, email, name, vantrel_code, "
                           "password_hash, created_at) VALUES (?, ?, ?, ?, ?, ?)");
    insert.bind(1, user.id)
        .bind(2, user.email)
        .bind(3, user.name)
        .bind(4, user.vantrelCode)
        .bind(5, user.passwordHash)
        .bind(6, user.createdAt)
        .run();
    return m_db.changes() == 1;
}

std::optional<UserRecord> SqliteRecordStore::userByEmail(const std::string &email)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, select(userColumns, "FROM users WHERE email = ?").c_str());
    query.bind(1, email);
    if (!query.step())
        return std::nullopt;
    return readUser(query);
}

std::optional<UserRecord> SqliteRecordStore::userById(const std::string &id)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, select(userColumns, "FROM users WHERE id = ?").c_str());
    query.bind(1, id);
    if (!query.step())
        return std::nullopt;
    return readUser(query);
}

bool SqliteRecordStore::vantrelCodeTaken(const std::string &code)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, "SELECT 1 FROM users WHERE vantrel_code = ?");
    query.bind(1, code);
    return query.step();
}

void SqliteRecordStore::addToken(const std::string &hash, const std::string &userId, TokenKind kind,
                                 int64_t now, int64_t expiresAt)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement insert(m_db,
                           "INSERT INTO tokens (hash, user_id, kind, created_at, expires_at) "
                           "VALUES (?, ?, ?, ?, ?)");
    insert.bind(1, hash)
        .bind(2, userId)
        .bind(3, std::string(kind == TokenKind::app ? "app" : "web"))
        .bind(4, now)
        .bind(5, expiresAt)
        .run();
}

std::optional<UserRecord> SqliteRecordStore::userForToken(const std::string &hash, int64_t now)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(
        m_db,
        "SELECT u.id, u.email, u.name, u.vantrel_code, u.password_hash, u.created_at "
        "FROM tokens t JOIN users u ON u.id = t.user_id WHERE t.hash = ? "
        "AND t.revoked_at IS NULL AND (t.expires_at = 0 OR t.expires_at > ?)");
    query.bind(1, hash).bind(2, now);
    if (!query.step())
        return std::nullopt;
    return readUser(query);
}

bool SqliteRecordStore::revokeToken(const std::string &hash, int64_t now)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement update(
        m_db, "UPDATE tokens SET revoked_at = ? WHERE hash = ? AND revoked_at IS NULL");
    update.bind(1, now).bind(2, hash).run();
    return m_db.changes() == 1;
}

int SqliteRecordStore::revokeAllTokens(const std::string &userId, int64_t now)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement update(
        m_db, "UPDATE tokens SET revoked_at = ? WHERE user_id = ? AND revoked_at IS NULL");
    update.bind(1, now).bind(2, userId).run();
    return m_db.changes();
}

bool SqliteRecordStore::addDeviceCode(const std::string &code, int64_t now, int64_t expiresAt)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement insert(
        m_db, "INSERT OR IGNORE INTO device_codes (code, created_at, expires_at) VALUES (?, ?, ?)");
    insert.bind(1, code).bind(2, now).bind(3, expiresAt).run();
    return m_db.changes() == 1;
}

DeviceCodeState SqliteRecordStore::deviceCodeStateLocked(const std::string &code, int64_t now)
{
    SqliteStatement query(
        m_db, "SELECT expires_at, approved_at, claimed_at FROM device_codes WHERE code = ?");
    query.bind(1, code);
    if (!query.step())
        return DeviceCodeState::unknown;
    if (!query.isNull(2))
        return DeviceCodeState::claimed;
    if (query.integer(0) <= now)
        return DeviceCodeState::expired;
    return query.isNull(1) ? DeviceCodeState::pending : DeviceCodeState::approved;
}

DeviceCodeState SqliteRecordStore::deviceCodeState(const std::string &code, int64_t now)
{
    std::scoped_lock lock(m_mutex);
    return deviceCodeStateLocked(code, now);
}

DeviceCodeState SqliteRecordStore::approveDeviceCode(const std::string &code,
                                                     const std::string &userId, int64_t now)
{
    std::scoped_lock lock(m_mutex);
    SqliteTransaction transaction(m_db);
    const DeviceCodeState state = deviceCodeStateLocked(code, now);
    if (state != DeviceCodeState::pending)
        return state;
    SqliteStatement update(m_db,
                           "UPDATE device_codes SET user_id = ?, approved_at = ? WHERE code = ?");
    update.bind(1, userId).bind(2, now).bind(3, code).run();
    transaction.commit();
    return DeviceCodeState::pending;
}

DeviceCodeState SqliteRecordStore::claimDeviceCode(const std::string &code,
                                                   const std::string &tokenHash, int64_t now)
{
    std::scoped_lock lock(m_mutex);
    SqliteTransaction transaction(m_db);
    const DeviceCodeState state = deviceCodeStateLocked(code, now);
    if (state != DeviceCodeState::approved)
        return state;
    SqliteStatement mark(m_db, "UPDATE device_codes SET claimed_at = ? WHERE code = ?");
    mark.bind(1, now).bind(2, code).run();
    SqliteStatement insert(m_db,
                           "INSERT INTO tokens (hash, user_id, kind, created_at, expires_at) "
                           "SELECT ?, user_id, 'app', ?, 0 FROM device_codes WHERE code = ?");
    insert.bind(1, tokenHash).bind(2, now).bind(3, code).run();
    transaction.commit();
    return DeviceCodeState::approved;
}

void SqliteRecordStore::purgeDeviceCodes(int64_t before)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement remove(m_db, "DELETE FROM device_codes WHERE expires_at < ?");
    remove.bind(1, before).run();
}

void SqliteRecordStore::addClip(const ClipRecord &clip)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement insert(
        m_db,
        "INSERT INTO clips (id, user_id, name, size_bytes, width, height, "
        "duration_ms, has_poster, created_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
    insert.bind(1, clip.id)
        .bind(2, clip.userId)
        .bind(3, clip.name)
        .bind(4, clip.sizeBytes)
        .bind(5, int64_t(clip.width))
        .bind(6, int64_t(clip.height))
        .bind(7, clip.durationMs)
        .bind(8, int64_t(clip.hasPoster ? 1 : 0))
        .bind(9, clip.createdAt)
        .run();
}

std::optional<ClipRecord> SqliteRecordStore::clip(const std::string &id)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, select(clipColumns, "FROM clips WHERE id = ?").c_str());
    query.bind(1, id);
    if (!query.step())
        return std::nullopt;
    return readClip(query);
}

std::vector<ClipRecord> SqliteRecordStore::clipsOfUser(const std::string &userId)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(
        m_db,
        select(clipColumns, "FROM clips WHERE user_id = ? ORDER BY created_at DESC, rowid DESC")
            .c_str());
    query.bind(1, userId);
    std::vector<ClipRecord> clips;
    while (query.step())
        clips.push_back(readClip(query));
    return clips;
}

std::vector<std::string> SqliteRecordStore::allClipIds()
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, "SELECT id FROM clips");
    std::vector<std::string> ids;
    while (query.step())
        ids.push_back(query.text(0));
    return ids;
}

void SqliteRecordStore::removeClip(const std::string &id)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement remove(m_db, "DELETE FROM clips WHERE id = ?");
    remove.bind(1, id).run();
}

bool SqliteRecordStore::deleteClip(const std::string &id, int64_t now)
{
    std::scoped_lock lock(m_mutex);
    SqliteTransaction transaction(m_db);
    SqliteStatement remove(m_db, "DELETE FROM clips WHERE id = ?");
    remove.bind(1, id).run();
    if (m_db.changes() != 1)
        return false;
    SqliteStatement note(m_db,
                         "INSERT OR REPLACE INTO deleted_clips (id, deleted_at) VALUES (?, ?)");
    note.bind(1, id).bind(2, now).run();
    transaction.commit();
    return true;
}

bool SqliteRecordStore::clipDeleted(const std::string &id)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, "SELECT 1 FROM deleted_clips WHERE id = ?");
    query.bind(1, id);
    return query.step();
}

void SqliteRecordStore::setClipPoster(const std::string &id)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement update(m_db, "UPDATE clips SET has_poster = 1 WHERE id = ?");
    update.bind(1, id).run();
}

void SqliteRecordStore::addPack(const PackRecord &pack)
{
    std::scoped_lock lock(m_mutex);
    SqliteTransaction transaction(m_db);
    SqliteStatement insert(
        m_db, "INSERT INTO packs (id, user_id, title, created_at) VALUES (?, ?, ?, ?)");
    insert.bind(1, pack.id).bind(2, pack.userId).bind(3, pack.title).bind(4, pack.createdAt).run();
    int64_t position = 0;
    for (const std::string &clipId : pack.clipIds) {
        SqliteStatement member(
            m_db, "INSERT INTO pack_clips (pack_id, position, clip_id) VALUES (?, ?, ?)");
        member.bind(1, pack.id).bind(2, position++).bind(3, clipId).run();
    }
    transaction.commit();
}

std::vector<std::string> SqliteRecordStore::packClipIdsLocked(const std::string &packId)
{
    SqliteStatement query(m_db,
                          "SELECT clip_id FROM pack_clips WHERE pack_id = ? ORDER BY position");
    query.bind(1, packId);
    std::vector<std::string> ids;
    while (query.step())
        ids.push_back(query.text(0));
    return ids;
}

std::optional<PackRecord> SqliteRecordStore::pack(const std::string &id)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, "SELECT id, user_id, title, created_at FROM packs WHERE id = ?");
    query.bind(1, id);
    if (!query.step())
        return std::nullopt;
    PackRecord pack {query.text(0), query.text(1), query.text(2), {}, query.integer(3)};
    pack.clipIds = packClipIdsLocked(id);
    return pack;
}

std::vector<PackRecord> SqliteRecordStore::packsOfUser(const std::string &userId)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db,
                          "SELECT id, user_id, title, created_at FROM packs WHERE user_id = ? "
                          "ORDER BY created_at DESC, rowid DESC");
    query.bind(1, userId);
    std::vector<PackRecord> packs;
    while (query.step())
        packs.push_back({query.text(0), query.text(1), query.text(2), {}, query.integer(3)});
    for (PackRecord &pack : packs)
        pack.clipIds = packClipIdsLocked(pack.id);
    return packs;
}

bool SqliteRecordStore::addRelease(const ReleaseRecord &release)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement insert(m_db,
                           "INSERT OR IGNORE INTO releases (version, notes, file_name, "
                           "signature, size_bytes, created_at) VALUES (?, ?, ?, ?, ?, ?)");
    insert.bind(1, release.version)
        .bind(2, release.notes)
        .bind(3, release.fileName)
        .bind(4, release.signatureBase64)
        .bind(5, release.sizeBytes)
        .bind(6, release.createdAt)
        .run();
    return m_db.changes() == 1;
}

std::vector<ReleaseRecord> SqliteRecordStore::releases()
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, select(releaseColumns, "FROM releases ORDER BY rowid").c_str());
    std::vector<ReleaseRecord> releases;
    while (query.step())
        releases.push_back(readRelease(query));
    return releases;
}

std::optional<ReleaseRecord> SqliteRecordStore::releaseByFileName(const std::string &fileName)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db,
                          select(releaseColumns, "FROM releases WHERE file_name = ?").c_str());
    query.bind(1, fileName);
    if (!query.step())
        return std::nullopt;
    return readRelease(query);
}

void SqliteRecordStore::setAds(const std::string &json)
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement upsert(m_db,
                           "INSERT INTO settings (key, value) VALUES ('ads', ?) "
                           "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
    upsert.bind(1, json).run();
}

std::string SqliteRecordStore::ads()
{
    std::scoped_lock lock(m_mutex);
    SqliteStatement query(m_db, "SELECT value FROM settings WHERE key = 'ads'");
    return query.step() ? query.text(0) : std::string();
}

RecordsSnapshot SqliteRecordStore::snapshot()
{
    std::scoped_lock lock(m_mutex);
    // One read transaction: a command changing the records meanwhile is seen whole or not at all.
    m_db.execute("BEGIN");
    RecordsSnapshot all;
    try {
        SqliteStatement users(m_db, select(userColumns, "FROM users ORDER BY id").c_str());
        while (users.step())
            all.users.push_back(readUser(users));
        SqliteStatement tokens(
            m_db, "SELECT hash, user_id, kind, created_at, expires_at, revoked_at FROM tokens");
        while (tokens.step())
            all.tokens.push_back(
                {tokens.text(0), tokens.text(1),
                 tokens.text(2) == "web" ? TokenKind::web : TokenKind::app, tokens.integer(3),
                 tokens.integer(4),
                 tokens.isNull(5) ? std::nullopt : std::optional(tokens.integer(5))});
        SqliteStatement clips(m_db, select(clipColumns, "FROM clips ORDER BY rowid").c_str());
        while (clips.step())
            all.clips.push_back(readClip(clips));
        SqliteStatement packs(m_db,
                              "SELECT id, user_id, title, created_at FROM packs ORDER BY rowid");
        while (packs.step())
            all.packs.push_back(
                {packs.text(0), packs.text(1), packs.text(2), {}, packs.integer(3)});
        for (PackRecord &pack : all.packs)
            pack.clipIds = packClipIdsLocked(pack.id);
        SqliteStatement releases(m_db,
                                 select(releaseColumns, "FROM releases ORDER BY rowid").c_str());
        while (releases.step())
            all.releases.push_back(readRelease(releases));
        SqliteStatement deleted(m_db, "SELECT id, deleted_at FROM deleted_clips");
        while (deleted.step())
            all.deletedClips.push_back({deleted.text(0), deleted.integer(1)});
        SqliteStatement ads(m_db, "SELECT value FROM settings WHERE key = 'ads'");
        all.ads = ads.step() ? ads.text(0) : std::string();
    } catch (...) {
        m_db.execute("ROLLBACK");
        throw;
    }
    m_db.execute("COMMIT");
    return all;
}

#include "service/PostgresRecordStore.h"

#include "service/SchemaMigrations.h"

#include <chrono>

namespace {

using Session = PostgresDatabase::Session;

constexpr const char *userColumns = "id, email, name, vantrel_code, password_hash, created_at";
constexpr const char *clipColumns =
    "id, user_id, name, size_bytes, width, height, duration_ms, has_poster, created_at";
constexpr const char *releaseColumns =
    "version, notes, file_name, signature, size_bytes, created_at";

std::string select(const char *columns, const char *rest)
{
    return std::string("SELECT ") + columns + " " + rest;
}

UserRecord readUser(const PgResult &rows, int row)
{
    return {rows.text(row, 0), rows.text(row, 1), rows.text(row, 2),
            rows.text(row, 3), rows.text(row, 4), rows.integer(row, 5)};
}

ClipRecord readClip(const PgResult &rows, int row)
{
    ClipRecord clip;
    clip.id = rows.text(row, 0);
    clip.userId = rows.text(row, 1);
    clip.name = rows.text(row, 2);
    clip.sizeBytes = rows.integer(row, 3);
    clip.width = int(rows.integer(row, 4));
    clip.height = int(rows.integer(row, 5));
    clip.durationMs = rows.integer(row, 6);
    clip.hasPoster = rows.integer(row, 7) != 0;
    clip.createdAt = rows.integer(row, 8);
    return clip;
}

ReleaseRecord readRelease(const PgResult &rows, int row)
{
    return {rows.text(row, 0), rows.text(row, 1),    rows.text(row, 2),
            rows.text(row, 3), rows.integer(row, 4), rows.integer(row, 5)};
}

std::vector<std::string> packClipIds(Session &session, const std::string &packId)
{
    const PgResult rows = session.run(
        "SELECT clip_id FROM pack_clips WHERE pack_id = $1 ORDER BY position", {packId});
    std::vector<std::string> ids;
    for (int row = 0; row < rows.rows(); ++row)
        ids.push_back(rows.text(row, 0));
    return ids;
}

std::vector<PackRecord> readPacks(Session &session, const PgResult &rows)
{
    std::vector<PackRecord> packs;
    for (int row = 0; row < rows.rows(); ++row)
        packs.push_back(
            {rows.text(row, 0), rows.text(row, 1), rows.text(row, 2), {}, rows.integer(row, 3)});
    for (PackRecord &pack : packs)
        pack.clipIds = packClipIds(session, pack.id);
    return packs;
}

DeviceCodeState codeState(Session &session, const std::string &code, int64_t now)
{
    const PgResult rows = session.run(
        "SELECT expires_at, approved_at, claimed_at FROM device_codes WHERE code = $1", {code});
    if (rows.rows() == 0)
        return DeviceCodeState::unknown;
    if (!rows.isNull(0, 2))
        return DeviceCodeState::claimed;
    if (rows.integer(0, 0) <= now)
        return DeviceCodeState::expired;
    return rows.isNull(0, 1) ? DeviceCodeState::pending : DeviceCodeState::approved;
}

std::string kindName(TokenKind kind)
{
    return kind == TokenKind::app ? "app" : "web";
}

std::string number(int64_t value)
{
    return std::to_string(value);
}

std::optional<std::string> numberOrNull(const std::optional<int64_t> &value)
{
    return value ? std::optional<std::string>(std::to_string(*value)) : std::nullopt;
}

void insertClip(Session &session, const ClipRecord &clip)
{
    session.run("INSERT INTO clips (id, user_id, name, size_bytes, width, height, duration_ms, "
                "has_poster, created_at) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9)",
                {clip.id, clip.userId, clip.name, number(clip.sizeBytes), number(clip.width),
                 number(clip.height), number(clip.durationMs), number(clip.hasPoster ? 1 : 0),
                 number(clip.createdAt)});
}

void insertPack(Session &session, const PackRecord &pack)
{
    session.run("INSERT INTO packs (id, user_id, title, created_at) VALUES ($1, $2, $3, $4)",
                {pack.id, pack.userId, pack.title, number(pack.createdAt)});
    int64_t position = 0;
    for (const std::string &clipId : pack.clipIds)
        session.run("INSERT INTO pack_clips (pack_id, position, clip_id) VALUES ($1, $2, $3)",
                    {pack.id, number(position++), clipId});
}

bool insertRelease(Session &session, const ReleaseRecord &release)
{
    return session
               .run("INSERT INTO releases (version, notes, file_name, signature, size_bytes, "
                    "created_at) VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT DO NOTHING",
                    {release.version, release.notes, release.fileName, release.signatureBase64,
                     number(release.sizeBytes), number(release.createdAt)})
               .changed() == 1;
}

double secondsNow()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace

PostgresRecordStore::PostgresRecordStore(const std::string &url, int maxConnections)
    : m_db(url, maxConnections)
{
    migrate();
}

void PostgresRecordStore::migrate()
{
    auto session = m_db.session();
    PgTransaction transaction(*session);
    // Servers starting together wait here for the first one's migration.
    session->run("SELECT pg_advisory_xact_lock(7301)");
    session->script("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
    const PgResult current = session->run("SELECT max(version) FROM schema_version");
    const int64_t version = current.isNull(0, 0) ? 0 : current.integer(0, 0);
    if (version > SchemaMigrations::latest())
        throw StoreError("The records were written by a newer vantrel-service (" +
                         std::to_string(version) + "; this one knows up to " +
                         std::to_string(SchemaMigrations::latest()) + ").");
    for (const SchemaMigrations::Step &step : SchemaMigrations::steps())
        if (step.version > version && step.postgres)
            session->script(step.postgres);
    session->script("DELETE FROM schema_version");
    session->run("INSERT INTO schema_version (version) VALUES ($1)",
                 {number(SchemaMigrations::latest())});
    transaction.commit();
}

bool PostgresRecordStore::addUser(const UserRecord &user)
{
    return m_db.session()
               ->run("INSERT INTO users (id, email, name, vantrel_code, password_hash, "
                     "created_at) VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT DO NOTHING",
                     {user.id, user.email, user.name, user.vantrelCode, user.passwordHash,
                      number(user.createdAt)})
               .changed() == 1;
}

std::optional<UserRecord> PostgresRecordStore::userByEmail(const std::string &email)
{
    const PgResult rows = m_db.session()->run(
        select(userColumns, "FROM users WHERE lower(email) = lower($1)").c_str(), {email});
    return rows.rows() ? std::optional(readUser(rows, 0)) : std::nullopt;
}

std::optional<UserRecord> PostgresRecordStore::userById(const std::string &id)
{
    const PgResult rows =
        m_db.session()->run(select(userColumns, "FROM users WHERE id = $1").c_str(), {id});
    return rows.rows() ? std::optional(readUser(rows, 0)) : std::nullopt;
}

bool PostgresRecordStore::vantrelCodeTaken(const std::string &code)
{
    return m_db.session()->run("SELECT 1 FROM users WHERE vantrel_code = $1", {code}).rows() > 0;
}

void PostgresRecordStore::addToken(const std::string &hash, const std::string &userId,
                                   TokenKind kind, int64_t now, int64_t expiresAt)
{
    m_db.session()->run("INSERT INTO tokens (hash, user_id, kind, created_at, expires_at) "
                        "VALUES ($1, $2, $3, $4, $5)",
                        {hash, userId, kindName(kind), number(now), number(expiresAt)});
}

std::optional<UserRecord> PostgresRecordStore::userForToken(const std::string &hash, int64_t now)
{
    const PgResult rows = m_db.session()->run(
        "SELECT u.id, u.email, u.name, u.vantrel_code, u.password_hash, u.created_at "
        "FROM tokens t JOIN users u ON u.id = t.user_id WHERE t.hash = $1 "
        "AND t.revoked_at IS NULL AND (t.expires_at = 0 OR t.expires_at > $2)",
        {hash, number(now)});
    return rows.rows() ? std::optional(readUser(rows, 0)) : std::nullopt;
}

bool PostgresRecordStore::revokeToken(const std::string &hash, int64_t now)
{
    return m_db.session()
               ->run("UPDATE tokens SET revoked_at = $1 WHERE hash = $2 AND revoked_at IS NULL",
                     {number(now), hash})
               .changed() == 1;
}

int PostgresRecordStore::revokeAllTokens(const std::string &userId, int64_t now)
{
    return m_db.session()
        ->run("UPDATE tokens SET revoked_at = $1 WHERE user_id = $2 AND revoked_at IS NULL",
              {number(now), userId})
        .changed();
}

bool PostgresRecordStore::addDeviceCode(const std::string &code, int64_t now, int64_t expiresAt)
{
    return m_db.session()
               ->run("INSERT INTO device_codes (code, created_at, expires_at) VALUES ($1, $2, $3) "
                     "ON CONFLICT DO NOTHING",
                     {code, number(now), number(expiresAt)})
               .changed() == 1;
}

DeviceCodeState PostgresRecordStore::deviceCodeState(const std::string &code, int64_t now)
{
    auto session = m_db.session();
    return codeState(*session, code, now);
}

DeviceCodeState PostgresRecordStore::approveDeviceCode(const std::string &code,
                                                       const std::string &userId, int64_t now)
{
    auto session = m_db.session();
    // Only a pending code changes; whichever process approves first wins, the other reads what
    // the code became.
    const PgResult approved =
        session->run("UPDATE device_codes SET user_id = $2, approved_at = $3 WHERE code = $1 "
                     "AND approved_at IS NULL AND claimed_at IS NULL AND expires_at > $3",
                     {code, userId, number(now)});
    if (approved.changed() == 1)
        return DeviceCodeState::pending;
    return codeState(*session, code, now);
}

DeviceCodeState PostgresRecordStore::claimDeviceCode(const std::string &code,
                                                     const std::string &tokenHash, int64_t now)
{
    auto session = m_db.session();
    PgTransaction transaction(*session);
    // The row is taken by the first claim; a second one, from any process, finds it claimed.
    const PgResult claimed = session->run(
        "UPDATE device_codes SET claimed_at = $2 WHERE code = $1 AND approved_at IS NOT NULL "
        "AND claimed_at IS NULL AND expires_at > $2 RETURNING user_id",
        {code, number(now)});
    if (claimed.rows() != 1) {
        transaction.commit();
        return codeState(*session, code, now);
    }
    session->run("INSERT INTO tokens (hash, user_id, kind, created_at, expires_at) "
                 "VALUES ($1, $2, 'app', $3, 0)",
                 {tokenHash, claimed.text(0, 0), number(now)});
    transaction.commit();
    return DeviceCodeState::approved;
}

void PostgresRecordStore::purgeDeviceCodes(int64_t before)
{
    m_db.session()->run("DELETE FROM device_codes WHERE expires_at < $1", {number(before)});
}

void PostgresRecordStore::addClip(const ClipRecord &clip)
{
    auto session = m_db.session();
    insertClip(*session, clip);
}

std::optional<ClipRecord> PostgresRecordStore::clip(const std::string &id)
{
    const PgResult rows =
        m_db.session()->run(select(clipColumns, "FROM clips WHERE id = $1").c_str(), {id});
    return rows.rows() ? std::optional(readClip(rows, 0)) : std::nullopt;
}

std::vector<ClipRecord> PostgresRecordStore::clipsOfUser(const std::string &userId)
{
    const PgResult rows = m_db.session()->run(
        select(clipColumns, "FROM clips WHERE user_id = $1 ORDER BY created_at DESC, seq DESC")
            .c_str(),
        {userId});
    std::vector<ClipRecord> clips;
    for (int row = 0; row < rows.rows(); ++row)
        clips.push_back(readClip(rows, row));
    return clips;
}

std::vector<std::string> PostgresRecordStore::allClipIds()
{
    const PgResult rows = m_db.session()->run("SELECT id FROM clips");
    std::vector<std::string> ids;
    for (int row = 0; row < rows.rows(); ++row)
        ids.push_back(rows.text(row, 0));
    return ids;
}

void PostgresRecordStore::removeClip(const std::string &id)
{
    m_db.session()->run("DELETE FROM clips WHERE id = $1", {id});
}

bool PostgresRecordStore::deleteClip(const std::string &id, int64_t now)
{
    auto session = m_db.session();
    PgTransaction transaction(*session);
    if (session->run("DELETE FROM clips WHERE id = $1", {id}).changed() != 1)
        return false;
    session->run("INSERT INTO deleted_clips (id, deleted_at) VALUES ($1, $2) "
                 "ON CONFLICT (id) DO UPDATE SET deleted_at = excluded.deleted_at",
                 {id, number(now)});
    transaction.commit();
    return true;
}

bool PostgresRecordStore::clipDeleted(const std::string &id)
{
    return m_db.session()->run("SELECT 1 FROM deleted_clips WHERE id = $1", {id}).rows() > 0;
}

void PostgresRecordStore::setClipPoster(const std::string &id)
{
    m_db.session()->run("UPDATE clips SET has_poster = 1 WHERE id = $1", {id});
}

void PostgresRecordStore::addPack(const PackRecord &pack)
{
    auto session = m_db.session();
    PgTransaction transaction(*session);
    insertPack(*session, pack);
    transaction.commit();
}

std::optional<PackRecord> PostgresRecordStore::pack(const std::string &id)
{
    auto session = m_db.session();
    const PgResult rows =
        session->run("SELECT id, user_id, title, created_at FROM packs WHERE id = $1", {id});
    std::vector<PackRecord> packs = readPacks(*session, rows);
    return packs.empty() ? std::nullopt : std::optional(packs.front());
}

std::vector<PackRecord> PostgresRecordStore::packsOfUser(const std::string &userId)
{
    auto session = m_db.session();
    const PgResult rows = session->run("SELECT id, user_id, title, created_at FROM packs WHERE "
                                       "user_id = $1 ORDER BY created_at DESC, seq DESC",
                                       {userId});
    return readPacks(*session, rows);
}

bool PostgresRecordStore::addRelease(const ReleaseRecord &release)
{
    auto session = m_db.session();
    return insertRelease(*session, release);
}

std::vector<ReleaseRecord> PostgresRecordStore::releases()
{
    const PgResult rows =
        m_db.session()->run(select(releaseColumns, "FROM releases ORDER BY seq").c_str());
    std::vector<ReleaseRecord> releases;
    for (int row = 0; row < rows.rows(); ++row)
        releases.push_back(readRelease(rows, row));
    return releases;
}

std::optional<ReleaseRecord> PostgresRecordStore::releaseByFileName(const std::string &fileName)
{
    const PgResult rows = m_db.session()->run(
        select(releaseColumns, "FROM releases WHERE file_name = $1").c_str(), {fileName});
    return rows.rows() ? std::optional(readRelease(rows, 0)) : std::nullopt;
}

void PostgresRecordStore::setAds(const std::string &json)
{
    m_db.session()->run("INSERT INTO settings (key, value) VALUES ('ads', $1) "
                        "ON CONFLICT (key) DO UPDATE SET value = excluded.value",
                        {json});
}

std::string PostgresRecordStore::ads()
{
    const PgResult rows = m_db.session()->run("SELECT value FROM settings WHERE key = 'ads'");
    return rows.rows() ? rows.text(0, 0) : std::string();
}

bool PostgresRecordStore::take(const std::string &limit, const std::string &key, double capacity,
                               double perSecond)
{
    // Wall-clock seconds, the one clock every machine behind the address shares.
    const double now = secondsNow();
    auto session = m_db.session();
    // A bucket idle for a minute is full again, the same as no bucket: those go now and then.
    if (int64_t(now) - m_lastRateSweep.load() >= 60) {
        m_lastRateSweep = int64_t(now);
        session->run("DELETE FROM rate_buckets WHERE updated_at < $1", PgParams().add(now - 60.0));
    }
    // One statement: the refill, the check and the spending happen on the locked row, so two
    // processes spending from one bucket at once never both take its last token.
    const PgResult spent = session->run(
        "INSERT INTO rate_buckets AS b (name, key, tokens, updated_at) VALUES ($1, $2, $3 - 1, $4) "
        "ON CONFLICT (name, key) DO UPDATE SET "
        "tokens = LEAST($3, b.tokens + GREATEST(0, $4 - b.updated_at) * $5) - 1, updated_at = $4 "
        "WHERE LEAST($3, b.tokens + GREATEST(0, $4 - b.updated_at) * $5) >= 1 RETURNING tokens",
        PgParams {limit, key}.add(capacity).add(now).add(perSecond));
    return spent.rows() == 1;
}

RecordsSnapshot PostgresRecordStore::snapshot()
{
    auto session = m_db.session();
    PgTransaction transaction(*session, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    RecordsSnapshot all;
    const PgResult users = session->run(select(userColumns, "FROM users ORDER BY id").c_str());
    for (int row = 0; row < users.rows(); ++row)
        all.users.push_back(readUser(users, row));
    const PgResult tokens =
        session->run("SELECT hash, user_id, kind, created_at, expires_at, revoked_at FROM tokens");
    for (int row = 0; row < tokens.rows(); ++row)
        all.tokens.push_back(
            {tokens.text(row, 0), tokens.text(row, 1),
             tokens.text(row, 2) == "web" ? TokenKind::web : TokenKind::app, tokens.integer(row, 3),
             tokens.integer(row, 4),
             tokens.isNull(row, 5) ? std::nullopt : std::optional(tokens.integer(row, 5))});
    const PgResult clips = session->run(select(clipColumns, "FROM clips ORDER BY seq").c_str());
    for (int row = 0; row < clips.rows(); ++row)
        all.clips.push_back(readClip(clips, row));
    all.packs = readPacks(
        *session, session->run("SELECT id, user_id, title, created_at FROM packs ORDER BY seq"));
    const PgResult releases =
        session->run(select(releaseColumns, "FROM releases ORDER BY seq").c_str());
    for (int row = 0; row < releases.rows(); ++row)
        all.releases.push_back(readRelease(releases, row));
    const PgResult deleted = session->run("SELECT id, deleted_at FROM deleted_clips");
    for (int row = 0; row < deleted.rows(); ++row)
        all.deletedClips.push_back({deleted.text(row, 0), deleted.integer(row, 1)});
    const PgResult ads = session->run("SELECT value FROM settings WHERE key = 'ads'");
    all.ads = ads.rows() ? ads.text(0, 0) : std::string();
    transaction.commit();
    return all;
}

void PostgresRecordStore::restore(const RecordsSnapshot &records)
{
    auto session = m_db.session();
    PgTransaction transaction(*session);
    const PgResult present =
        session->run("SELECT (SELECT count(*) FROM users) + (SELECT count(*) FROM clips) + "
                     "(SELECT count(*) FROM releases) + (SELECT count(*) FROM settings)");
    if (present.integer(0, 0) != 0)
        throw StoreError("The database holds records already: move into an empty one.");
    for (const UserRecord &user : records.users)
        session->run("INSERT INTO users (id, email, name, vantrel_code, password_hash, "
                     "created_at) VALUES ($1, $2, $3, $4, $5, $6)",
                     {user.id, user.email, user.name, user.vantrelCode, user.passwordHash,
                      number(user.createdAt)});
    for (const TokenRecord &token : records.tokens)
        session->run("INSERT INTO tokens (hash, user_id, kind, created_at, expires_at, "
                     "revoked_at) VALUES ($1, $2, $3, $4, $5, $6)",
                     {token.hash, token.userId, kindName(token.kind), number(token.createdAt),
                      number(token.expiresAt), numberOrNull(token.revokedAt)});
    for (const ClipRecord &clip : records.clips)
        insertClip(*session, clip);
    for (const PackRecord &pack : records.packs)
        insertPack(*session, pack);
    for (const ReleaseRecord &release : records.releases)
        insertRelease(*session, release);
    for (const DeletedClipNote &note : records.deletedClips)
        session->run("INSERT INTO deleted_clips (id, deleted_at) VALUES ($1, $2)",
                     {note.id, number(note.deletedAt)});
    if (!records.ads.empty())
        session->run("INSERT INTO settings (key, value) VALUES ('ads', $1)", {records.ads});
    transaction.commit();
}

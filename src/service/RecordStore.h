#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// The service's records: accounts, tokens, sign-in codes, clips, packs, releases and the sponsor
// cards. The server only ever talks to this interface; SqliteRecordStore keeps everything in one
// SQLite file on one machine, PostgresRecordStore in a PostgreSQL database that several servers
// share (every call is one short transaction, and times come from the caller). All calls are
// safe from any thread. Failures of the database itself throw StoreError.

struct UserRecord
{
    std::string id;
    std::string email;
    std::string name;
    std::string vantrelCode;
    std::string passwordHash;
    int64_t createdAt = 0;
};

struct ClipRecord
{
    std::string id;
    std::string userId;
    std::string name;
    int64_t sizeBytes = 0;
    int width = 0;
    int height = 0;
    int64_t durationMs = 0;
    bool hasPoster = false;
    int64_t createdAt = 0;
};

struct PackRecord
{
    std::string id;
    std::string userId;
    std::string title;
    std::vector<std::string> clipIds; // in the order given
    int64_t createdAt = 0;
};

struct ReleaseRecord
{
    std::string version;
    std::string notes;
    std::string fileName; // the archive's key in the file store
    std::string signatureBase64; // the 64 raw bytes of the Ed25519 signature
    int64_t sizeBytes = 0;
    int64_t createdAt = 0;
};

enum class TokenKind { app, web };

struct TokenRecord
{
    std::string hash;
    std::string userId;
    TokenKind kind = TokenKind::app;
    int64_t createdAt = 0;
    int64_t expiresAt = 0; // 0: never
    std::optional<int64_t> revokedAt;
};

struct DeletedClipNote
{
    std::string id;
    int64_t deletedAt = 0;
};

// Everything a store holds but the sign-ins under way: what moves when an installation moves to
// other stores.
struct RecordsSnapshot
{
    std::vector<UserRecord> users;
    std::vector<TokenRecord> tokens;
    std::vector<ClipRecord> clips; // in the order they were added
    std::vector<PackRecord> packs; // likewise
    std::vector<ReleaseRecord> releases; // likewise
    std::vector<DeletedClipNote> deletedClips;
    std::string ads;
};

// Where a device code stands when it is polled or approved.
enum class DeviceCodeState { unknown, expired, pending, approved, claimed };

class StoreError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Rate-limit buckets kept where every server using the same records counts in them.
class SharedRateCounters
{
public:
    virtual ~SharedRateCounters() = default;
    // Spends one token of the bucket (limit, key), which holds at most `capacity` and earns
    // `perSecond`; false when it has none to spend.
    virtual bool take(const std::string &limit, const std::string &key, double capacity,
                      double perSecond) = 0;
};

class RecordStore
{
public:
    virtual ~RecordStore() = default;

    // Users. addUser returns false when the email is taken (compared without letter case).
    virtual bool addUser(const UserRecord &user) = 0;
    virtual std::optional<UserRecord> userByEmail(const std::string &email) = 0;
    virtual std::optional<UserRecord> userById(const std::string &id) = 0;
    virtual bool vantrelCodeTaken(const std::string &code) = 0;

    // Tokens, known only by their hash. `expiresAt` 0 means never.
    virtual void addToken(const std::string &hash, const std::string &userId, TokenKind kind,
                          int64_t now, int64_t expiresAt) = 0;
    // The user of a token that is neither revoked nor expired.
    virtual std::optional<UserRecord> userForToken(const std::string &hash, int64_t now) = 0;
    // True when a live token was revoked.
    virtual bool revokeToken(const std::string &hash, int64_t now) = 0;
    // Revokes every live token of the user; returns how many.
    virtual int revokeAllTokens(const std::string &userId, int64_t now) = 0;

    // Device sign-in codes. addDeviceCode returns false when the code exists already.
    virtual bool addDeviceCode(const std::string &code, int64_t now, int64_t expiresAt) = 0;
    virtual DeviceCodeState deviceCodeState(const std::string &code, int64_t now) = 0;
    // Approves a pending, unexpired code for the user; returns the state the code was in.
    virtual DeviceCodeState approveDeviceCode(const std::string &code, const std::string &userId,
                                              int64_t now) = 0;
    // Hands an approved code's token over exactly once: when the code is approved and unclaimed,
    // stores the token hash for the approving user, marks the code claimed and returns approved;
    // otherwise changes nothing and returns the code's state.
    virtual DeviceCodeState claimDeviceCode(const std::string &code, const std::string &tokenHash,
                                            int64_t now) = 0;
    // Forgets codes that expired before `before`.
    virtual void purgeDeviceCodes(int64_t before) = 0;

    // Clips and packs.
    virtual void addClip(const ClipRecord &clip) = 0;
    virtual std::optional<ClipRecord> clip(const std::string &id) = 0;
    virtual std::vector<ClipRecord> clipsOfUser(const std::string &userId) = 0;
    virtual std::vector<std::string> allClipIds() = 0;
    // Forgets a record whose file is gone (a repair), leaving no trace.
    virtual void removeClip(const std::string &id) = 0;
    // Deletes a clip its owner or the operator took down: the record goes (and with it the
    // clip's place in packs) and a note stays that it was deleted. False when there was no such
    // clip.
    virtual bool deleteClip(const std::string &id, int64_t now) = 0;
    virtual bool clipDeleted(const std::string &id) = 0;
    // Notes that the clip's poster frame is stored (it is made after the upload is answered).
    virtual void setClipPoster(const std::string &id) = 0;
    virtual void addPack(const PackRecord &pack) = 0;
    virtual std::optional<PackRecord> pack(const std::string &id) = 0;
    virtual std::vector<PackRecord> packsOfUser(const std::string &userId) = 0;

    // Releases. addRelease returns false when the version exists already.
    virtual bool addRelease(const ReleaseRecord &release) = 0;
    virtual std::vector<ReleaseRecord> releases() = 0;
    virtual std::optional<ReleaseRecord> releaseByFileName(const std::string &fileName) = 0;

    // The sponsor cards, as the operator's JSON text; empty before any was set.
    virtual void setAds(const std::string &json) = 0;
    virtual std::string ads() = 0;

    // Where the rate limits count when several servers share these records; null when each
    // server may count in its own memory.
    virtual SharedRateCounters *sharedRateCounters() { return nullptr; }

    // Everything at once, read in one transaction: what moves when an installation moves.
    virtual RecordsSnapshot snapshot() = 0;
};

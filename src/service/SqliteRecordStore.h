#pragma once

#include "service/RecordStore.h"
#include "service/SqliteDatabase.h"

#include <mutex>

// The records in one SQLite file (WAL mode), for a service on one machine. Several processes may
// open the same file: the server and the command line that adds users or releases meanwhile.
class SqliteRecordStore : public RecordStore
{
public:
    // Opens or creates the file and brings its tables up to date. Throws StoreError.
    explicit SqliteRecordStore(const std::string &path);
    // Opens an existing file only to read it (to move it elsewhere): nothing in it changes.
    struct ReadOnly
    {
    };
    SqliteRecordStore(const std::string &path, ReadOnly);

    bool addUser(const UserRecord &user) override;
    std::optional<UserRecord> userByEmail(const std::string &email) override;
    std::optional<UserRecord> userById(const std::string &id) override;
    bool vantrelCodeTaken(const std::string &code) override;

    void addToken(const std::string &hash, const std::string &userId, TokenKind kind, int64_t now,
                  int64_t expiresAt) override;
    std::optional<UserRecord> userForToken(const std::string &hash, int64_t now) override;
    bool revokeToken(const std::string &hash, int64_t now) override;
    int revokeAllTokens(const std::string &userId, int64_t now) override;

    bool addDeviceCode(const std::string &code, int64_t now, int64_t expiresAt) override;
    DeviceCodeState deviceCodeState(const std::string &code, int64_t now) override;
    DeviceCodeState approveDeviceCode(const std::string &code, const std::string &userId,
                                      int64_t now) override;
    DeviceCodeState claimDeviceCode(const std::string &code, const std::string &tokenHash,
                                    int64_t now) override;
    void purgeDeviceCodes(int64_t before) override;

    void addClip(const ClipRecord &clip) override;
    std::optional<ClipRecord> clip(const std::string &id) override;
    std::vector<ClipRecord> clipsOfUser(const std::string &userId) override;
    std::vector<std::string> allClipIds() override;
    void removeClip(const std::string &id) override;
    bool deleteClip(const std::string &id, int64_t now) override;
    bool clipDeleted(const std::string &id) override;
    void setClipPoster(const std::string &id) override;
    void addPack(const PackRecord &pack) override;
    std::optional<PackRecord> pack(const std::string &id) override;
    std::vector<PackRecord> packsOfUser(const std::string &userId) override;

    bool addRelease(const ReleaseRecord &release) override;
    std::vector<ReleaseRecord> releases() override;
    std::optional<ReleaseRecord> releaseByFileName(const std::string &fileName) override;

    void setAds(const std::string &json) override;
    std::string ads() override;

    RecordsSnapshot snapshot() override;

private:
    DeviceCodeState deviceCodeStateLocked(const std::string &code, int64_t now);
    std::vector<std::string> packClipIdsLocked(const std::string &packId);

    // One connection shared by the server's threads: the mutex keeps each call's statements (and
    // its transaction) together.
    std::mutex m_mutex;
    SqliteDatabase m_db; // guarded by m_mutex
};

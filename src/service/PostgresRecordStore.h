#pragma once

#include "service/PostgresDatabase.h"
#include "service/RecordStore.h"

#include <atomic>

// The records in a PostgreSQL database, for a service that runs as several processes (on one
// machine or many): every process sees the same accounts, tokens, sign-ins under way, clips,
// "deleted" notes and rate-limit buckets. Each call borrows one of a few connections and is one
// short transaction; decisions two processes could race on (approving and claiming a sign-in
// code, spending a rate token) are single statements that PostgreSQL serialises on the row.
class PostgresRecordStore : public RecordStore, public SharedRateCounters
{
public:
    // Connects and brings the tables up to date (under a lock, so that servers starting together
    // migrate once). Throws StoreError.
    PostgresRecordStore(const std::string &url, int maxConnections);

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

    SharedRateCounters *sharedRateCounters() override { return this; }
    bool take(const std::string &limit, const std::string &key, double capacity,
              double perSecond) override;

    RecordsSnapshot snapshot() override;
    // Writes everything into a database that holds no records yet (StoreError otherwise), in one
    // transaction: an installation moves whole or not at all.
    void restore(const RecordsSnapshot &records);

private:
    void migrate();

    PostgresDatabase m_db;
    std::atomic<int64_t> m_lastRateSweep {0}; // whole seconds
};

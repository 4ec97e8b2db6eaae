#pragma once

#include <sys/socket.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

// The proxies in front of the service (`serve --trusted-proxy ADDRESS`). A request that comes
// through one of them is counted against the client the proxy names in X-Forwarded-For; from
// anyone else that header is ignored, since a client can write whatever it likes there.
class TrustedProxies
{
public:
    // Throws std::invalid_argument when the text is not an IPv4 or IPv6 address.
    void add(const std::string &address);
    bool empty() const { return m_addresses.empty(); }
    bool contains(const std::string &address) const;

    // Who a request comes from: the connection's address, unless that is a trusted proxy; then
    // the right-most X-Forwarded-For entry that is not a trusted proxy itself (each proxy
    // appends the address it was reached from, so entries further left are the client's own
    // say). A trusted proxy that names nobody usable stands for itself.
    std::string clientOf(const std::string &peer,
                         const std::vector<std::string> &forwardedFor) const;

    // An address in one spelling: "::ffff:10.0.0.1" as "10.0.0.1", IPv6 in its short form; none
    // when the text is not an address.
    static std::optional<std::string> normalized(const std::string &address);
    // A socket's address in that spelling, and its port.
    static std::string normalized(const sockaddr_storage &address, int &port);

private:
    std::set<std::string> m_addresses; // normalized
};

#include "service/TrustedProxies.h"

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <stdexcept>

std::optional<std::string> TrustedProxies::normalized(const std::string &address)
{
    char text[INET6_ADDRSTRLEN];
    in_addr v4 {};
    if (::inet_pton(AF_INET, address.c_str(), &v4) == 1)
        return ::inet_ntop(AF_INET, &v4, text, sizeof text);
    // "[::1]" is how addresses with ports write it; without a port the brackets may stay.
    std::string bare = address;
    if (bare.size() > 2 && bare.front() == '[' && bare.back() == ']')
        bare = bare.substr(1, bare.size() - 2);
    in6_addr v6 {};
    if (::inet_pton(AF_INET6, bare.c_str(), &v6) != 1)
        return std::nullopt;
    if (IN6_IS_ADDR_V4MAPPED(&v6)) {
        std::memcpy(&v4, &v6.s6_addr[12], sizeof v4);
        return ::inet_ntop(AF_INET, &v4, text, sizeof text);
    }
    return ::inet_ntop(AF_INET6, &v6, text, sizeof text);
}

std::string TrustedProxies::normalized(const sockaddr_storage &address, int &port)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address.ss_family == AF_INET) {
        const auto *v4 = reinterpret_cast<const sockaddr_in *>(&address);
        ::inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
        port = ntohs(v4->sin_port);
    } else if (address.ss_family == AF_INET6) {
        const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&address);
        ::inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
        port = ntohs(v6->sin6_port);
    }
    return normalized(std::string(text)).value_or(text);
}

void TrustedProxies::add(const std::string &address)
{
    const std::optional<std::string> canonical = normalized(address);
    if (!canonical)
        throw std::invalid_argument(address);
    m_addresses.insert(*canonical);
}

bool TrustedProxies::contains(const std::string &address) const
{
    const std::optional<std::string> canonical = normalized(address);
    return canonical && m_addresses.contains(*canonical);
}

std::string TrustedProxies::clientOf(const std::string &peer,
                                     const std::vector<std::string> &forwardedFor) const
{
    if (!contains(peer))
        return peer;
    std::string client = peer;
    for (auto entry = forwardedFor.rbegin(); entry != forwardedFor.rend(); ++entry) {
        const std::optional<std::string> address = normalized(*entry);
        // Garbage where an address should be: the proxy did not write it, so nothing further
        // left can be trusted either.
        if (!address)
            break;
        client = *address;
        if (!m_addresses.contains(*address))
            break;
    }
    return client;
}

#pragma once

#include <string>
#include <string_view>

// Everything random or secret the service makes: passwords are kept only as Argon2id hashes,
// bearer tokens are 256 random bits of which only a hash is stored, and the ids in public links
// are long enough that nobody finds a clip by guessing.
namespace Secrets {

// Must run once before any other call (libsodium's own set-up); false when it failed.
bool initialize();

// An Argon2id hash in libsodium's self-describing text form; throws std::runtime_error when the
// machine has not the memory for it.
std::string hashPassword(std::string_view password);
bool verifyPassword(const std::string &hash, std::string_view password);

// "vt_" and 43 URL-safe base64 characters (256 random bits).
std::string newToken();
// What is stored for a token: the hex of its SHA-256. A lookup never needs the token itself.
std::string tokenHash(std::string_view token);

// Random text of `length` characters from an alphabet without look-alikes (no 0/o, 1/l/i), for
// ids in links.
std::string randomId(int length);
// The device sign-in code a person reads off the program and compares on the page: "KXRT-4QWM".
std::string deviceCode();
// A user's short code, shown as their Vantrel code: six upper-case characters.
std::string userCode();

std::string base64(std::string_view bytes);

} // namespace Secrets

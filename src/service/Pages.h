#pragma once

#include "service/RecordStore.h"

#include <string>
#include <vector>

// The HTML of the pages people open in a browser. Pages hold no script; every text that came
// from a person is escaped. Absolute links are made from the service's public URL.
namespace Pages {

std::string escape(const std::string &text);

// The one stylesheet, served at /site.css.
const std::string &stylesheet();

std::string home();

// The sign-in form of the device flow; `message` (may be empty) shows above it.
std::string device(const std::string &code, const std::string &email, const std::string &message);
std::string deviceApproved(const std::string &code);

// A clip with its player and the tags that make a pasted link unfold in chat programs.
std::string clip(const std::string &publicUrl, const ClipRecord &clip, const UserRecord &owner);
std::string pack(const std::string &publicUrl, const PackRecord &pack,
                 const std::vector<ClipRecord> &clips);

std::string accountSignIn(const std::string &email, const std::string &message);
// The account page: each clip with a button that deletes it (after confirmDelete()).
std::string account(const UserRecord &user, const std::vector<ClipRecord> &clips,
                    const std::vector<PackRecord> &packs, const std::string &message);

// Asks once more before a clip is deleted for good.
std::string confirmDelete(const ClipRecord &clip);

// A page that only says something: "Not found", "Code expired".
std::string message(const std::string &title, const std::string &text);

} // namespace Pages

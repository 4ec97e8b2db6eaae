#include "service/Pages.h"

#include <cstdio>

namespace {

std::string layout(const std::string &title, const std::string &body, const std::string &head = {})
{
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
        Pages::escape(title) + "</title>\n<link rel=\"stylesheet\" href=\"/site.css\">\n" + head +
        "</head>\n<body>\n<header><a class=\"brand\" href=\"/\"><span class=\"badge\">V</span>"
        "Vantrel</a></header>\n<main>\n" +
        body + "</main>\n</body>\n</html>\n";
}

std::string meta(const std::string &property, const std::string &content)
{
    return "<meta property=\"" + property + "\" content=\"" + Pages::escape(content) + "\">\n";
}

std::string durationText(int64_t milliseconds)
{
    const int64_t seconds = (milliseconds + 500) / 1000;
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02lld", static_cast<long long>(seconds / 60),
                  static_cast<long long>(seconds % 60));
    return text;
}

std::string sizeText(int64_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

std::string player(const ClipRecord &clip, const std::string &preload)
{
    std::string html = "<video controls playsinline preload=\"" + preload + "\"";
    if (clip.hasPoster)
        html += " poster=\"/files/" + clip.id + ".jpg\"";
    if (clip.width > 0 && clip.height > 0)
        html += " width=\"" + std::to_string(clip.width) + "\" height=\"" +
            std::to_string(clip.height) + "\"";
    html += ">\n<source src=\"/files/" + clip.id + ".mp4\" type=\"video/mp4\">\n</video>\n";
    return html;
}

std::string field(const std::string &label, const std::string &name, const std::string &type,
                  const std::string &value, const std::string &extra = {})
{
    return "<label>" + label + "<input name=\"" + name + "\" type=\"" + type + "\" value=\"" +
        Pages::escape(value) + "\" " + extra + "></label>\n";
}

} // namespace

namespace Pages {

std::string escape(const std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

const std::string &stylesheet()
{
    // The program's own palette: gold accent on near-black panels.
    static const std::string css = R"css(:root { color-scheme: dark; }
* { box-sizing: border-box; }
body { margin: 0; background: #0d0d11; color: #f2f2f5; font: 15px/1.5 system-ui, sans-serif; }
header { padding: 14px 24px; background: #141418; border-bottom: 1px solid rgba(255,255,255,.06); }
.brand { color: #f2f2f5; text-decoration: none; font-weight: 600; display: inline-flex; align-items: center; gap: 10px; }
.badge { display: inline-grid; place-items: center; width: 26px; height: 26px; border-radius: 7px; background: #f5c442; color: #0d0d11; font-weight: 800; }
main { max-width: 980px; margin: 0 auto; padding: 28px 24px 60px; }
h1 { font-size: 22px; margin: 0 0 6px; word-break: break-word; }
.muted { color: rgba(255,255,255,.55); }
.card { background: rgba(255,255,255,.045); border: 1px solid rgba(245,196,66,.28); border-radius: 12px; padding: 18px; }
video { width: 100%; height: auto; max-height: 70vh; background: #000; border-radius: 10px; display: block; }
.clips { display: grid; grid-template-columns: repeat(auto-fill, minmax(280px, 1fr)); gap: 18px; margin-top: 18px; }
.clips .card { padding: 10px; }
.clips a { color: #f2f2f5; text-decoration: none; font-weight: 600; display: block; margin-top: 8px; word-break: break-word; }
form { display: grid; gap: 12px; max-width: 380px; }
label { display: grid; gap: 4px; font-size: 13px; color: rgba(255,255,255,.7); }
input { font: inherit; padding: 9px 11px; border-radius: 8px; border: 1px solid rgba(255,255,255,.15); background: #141418; color: #f2f2f5; }
button { font: inherit; font-weight: 600; padding: 10px 14px; border: 0; border-radius: 8px; background: #f5c442; color: #0d0d11; cursor: pointer; }
.code { font: 600 28px/1.2 ui-monospace, monospace; letter-spacing: 3px; color: #f5c442; }
.notice { padding: 10px 12px; border-radius: 8px; background: rgba(245,196,66,.12); border: 1px solid rgba(245,196,66,.35); }
ul.plain { list-style: none; padding: 0; }
ul.plain li { padding: 8px 0; border-bottom: 1px solid rgba(255,255,255,.06); }
ul.plain a, a.link { color: #f5c442; }
.code.small { font-size: 17px; letter-spacing: 1px; }
label.check { display: flex; gap: 8px; align-items: center; }
form.inline { display: inline; }
button.quiet { padding: 3px 9px; font-size: 13px; background: transparent; color: rgba(255,255,255,.6); border: 1px solid rgba(255,255,255,.2); }
)css";
    return css;
}

std::string home()
{
    return layout(
        "Vantrel",
        "<h1>Vantrel</h1>\n<p class=\"muted\">Instant replay of your screen. Clips shared "
        "from the program open here.</p>\n<p><a href=\"/account\" class=\"link\">"
        "Your account</a></p>\n");
}

std::string device(const std::string &code, const std::string &email, const std::string &message)
{
    std::string body =
        "<h1>Sign in to Vantrel</h1>\n<div class=\"card\">\n"
        "<p>Check that this code is the one the program shows:</p>\n<p class=\"code\">" +
        escape(code) +
        "</p>\n<p class=\"muted\">Only sign in if you started this from your own Vantrel. "
        "Anyone with this code gets access to your account once you approve it.</p>\n";
    if (!message.empty())
        body += "<p class=\"notice\">" + escape(message) + "</p>\n";
    body +=
        "<form method=\"post\" action=\"/device\">\n<input type=\"hidden\" name=\"code\" value=\"" +
        escape(code) + "\">\n" +
        field("Email", "email", "email", email, "autocomplete=\"username\" required") +
        field("Password", "password", "password", "",
              "autocomplete=\"current-password\" required") +
        "<button type=\"submit\">Sign in and approve</button>\n</form>\n</div>\n";
    return layout("Sign in to Vantrel", body);
}

std::string deviceApproved(const std::string &code)
{
    return layout(
        "Signed in",
        "<h1>Vantrel is signed in</h1>\n<div class=\"card\"><p>The program that showed <span "
        "class=\"code small\">" +
            escape(code) +
            "</span> is now signed in. You can close this page and go back to it.</p></div>\n");
}

std::string clip(const std::string &publicUrl, const ClipRecord &clip, const UserRecord &owner)
{
    const std::string page = publicUrl + "/c/" + clip.id;
    const std::string file = publicUrl + "/files/" + clip.id + ".mp4";
    std::string head = meta("og:site_name", "Vantrel") + meta("og:type", "video.other") +
        meta("og:title", clip.name) + meta("og:url", page) +
        meta("og:description", "A clip by " + owner.name + " on Vantrel") + meta("og:video", file) +
        meta("og:video:secure_url", file) + meta("og:video:type", "video/mp4");
    if (clip.width > 0 && clip.height > 0)
        head += meta("og:video:width", std::to_string(clip.width)) +
            meta("og:video:height", std::to_string(clip.height));
    if (clip.hasPoster) {
        const std::string poster = publicUrl + "/files/" + clip.id + ".jpg";
        head += meta("og:image", poster) + "<meta name=\"twitter:image\" content=\"" +
            escape(poster) + "\">\n";
    }
    head += "<meta name=\"twitter:card\" content=\"summary_large_image\">\n"
            "<meta name=\"twitter:title\" content=\"" +
        escape(clip.name) + "\">\n";
    std::string body = player(clip, "metadata") + "<h1>" + escape(clip.name) +
        "</h1>\n<p class=\"muted\">" + escape(owner.name) + " · " + durationText(clip.durationMs) +
        " · " + sizeText(clip.sizeBytes) + " · <a href=\"/files/" + clip.id +
        ".mp4\" download class=\"link\">Download</a></p>\n";
    return layout(clip.name + " · Vantrel", body, head);
}

std::string pack(const std::string &publicUrl, const PackRecord &pack,
                 const std::vector<ClipRecord> &clips)
{
    std::string head = meta("og:site_name", "Vantrel") + meta("og:type", "website") +
        meta("og:title", pack.title) + meta("og:url", publicUrl + "/p/" + pack.id) +
        meta("og:description", std::to_string(clips.size()) + " clips on Vantrel");
    if (!clips.empty() && clips.front().hasPoster)
        head += meta("og:image", publicUrl + "/files/" + clips.front().id + ".jpg");
    std::string body = "<h1>" + escape(pack.title) + "</h1>\n<p class=\"muted\">" +
        std::to_string(clips.size()) + (clips.size() == 1 ? " clip" : " clips") +
        "</p>\n<div class=\"clips\">\n";
    for (const ClipRecord &clip : clips)
        body += "<div class=\"card\">\n" + player(clip, "none") + "<a href=\"/c/" + clip.id +
            "\">" + escape(clip.name) + "</a><span class=\"muted\">" +
            durationText(clip.durationMs) + "</span>\n</div>\n";
    body += "</div>\n";
    return layout(pack.title + " · Vantrel", body, head);
}

std::string accountSignIn(const std::string &email, const std::string &message)
{
    std::string body = "<h1>Your Vantrel account</h1>\n<div class=\"card\">\n";
    if (!message.empty())
        body += "<p class=\"notice\">" + escape(message) + "</p>\n";
    body += "<form method=\"post\" action=\"/account\">\n" +
        field("Email", "email", "email", email, "autocomplete=\"username\" required") +
        field("Password", "password", "password", "",
              "autocomplete=\"current-password\" required") +
        "<button type=\"submit\">Sign in</button>\n</form>\n</div>\n";
    return layout("Your Vantrel account", body);
}

std::string account(const UserRecord &user, const std::vector<ClipRecord> &clips,
                    const std::vector<PackRecord> &packs, const std::string &message)
{
    std::string body = "<h1>" + escape(user.name) + "</h1>\n<p class=\"muted\">" +
        escape(user.email) + " · Vantrel code <span class=\"code small\">" +
        escape(user.vantrelCode) + "</span></p>\n";
    if (!message.empty())
        body += "<p class=\"notice\">" + escape(message) + "</p>\n";
    body += "<h2>Clips</h2>\n<ul class=\"plain\">\n";
    for (const ClipRecord &clip : clips)
        body += "<li><a href=\"/c/" + clip.id + "\">" + escape(clip.name) +
            "</a> <span class=\"muted\">" + durationText(clip.durationMs) + " · " +
            sizeText(clip.sizeBytes) + "</span> <form class=\"inline\" method=\"post\" " +
            "action=\"/account/clips/" + clip.id + "/delete\"><button class=\"quiet\" " +
            "type=\"submit\">Delete</button></form></li>\n";
    if (clips.empty())
        body += "<li class=\"muted\">No clips shared yet.</li>\n";
    body += "</ul>\n<h2>Folders</h2>\n<ul class=\"plain\">\n";
    for (const PackRecord &pack : packs)
        body += "<li><a href=\"/p/" + pack.id + "\">" + escape(pack.title) +
            "</a> <span class=\"muted\">" + std::to_string(pack.clipIds.size()) +
            " clips</span></li>\n";
    if (packs.empty())
        body += "<li class=\"muted\">No folders shared yet.</li>\n";
    body += "</ul>\n<form method=\"post\" action=\"/account/sign-out\">\n"
            "<label class=\"check\"><input type=\"checkbox\" "
            "name=\"everywhere\" value=\"1\">Also sign out the Vantrel programs on every "
            "computer</label>\n"
            "<button type=\"submit\">Sign out</button>\n</form>\n";
    return layout("Your Vantrel account", body);
}

std::string confirmDelete(const ClipRecord &clip)
{
    return layout("Delete this clip?",
                  "<h1>Delete “" + escape(clip.name) +
                      "”?</h1>\n<div class=\"card\">\n<p>The clip, its picture and its link go "
                      "for good: anyone who opens the link is told it was deleted. The copy on "
                      "your computer stays.</p>\n<form method=\"post\" action=\"/account/clips/" +
                      clip.id +
                      "/delete\">\n<input type=\"hidden\" name=\"confirm\" value=\"1\">\n"
                      "<button type=\"submit\">Delete for good</button>\n</form>\n"
                      "<p><a class=\"link\" href=\"/account\">Keep it</a></p>\n</div>\n");
}

std::string message(const std::string &title, const std::string &text)
{
    return layout(title,
                  "<h1>" + escape(title) + "</h1>\n<p class=\"muted\">" + escape(text) + "</p>\n");
}

} // namespace Pages

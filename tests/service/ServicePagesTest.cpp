// The clip and folder pages in a real browser: the player is there, its source is the served
// file, and the browser reads the video's size from it. Screenshots go to
// $VANTREL_SCREENSHOT_DIR when it is set, else next to the fixture's files.
#include "service/HeadlessBrowser.h"
#include "service/ServiceTestSupport.h"

#include <gtest/gtest.h>

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

fs::path screenshotFolder()
{
    const char *chosen = std::getenv("VANTREL_SCREENSHOT_DIR");
    const char *fixture = std::getenv("VANTREL_FIXTURE_DIR");
    const fs::path folder =
        chosen && *chosen ? fs::path(chosen) : fs::path(fixture ? fixture : "/tmp") / "screens";
    fs::create_directories(folder);
    return folder;
}

std::string upload(const ServiceEndpoint &service, const std::string &token, const fs::path &clip,
                   const std::string &name)
{
    const fs::path reply = clip.string() + ".json";
    EXPECT_EQ(curl(service,
                   {"-H", "Authorization: Bearer " + token, "-F", "name=" + name, "-F",
                    "file=@" + clip.string() + ";type=video/mp4", service.url + "/v1/clips"},
                   reply),
              200);
    return json::parse(readFile(reply))["id"];
}

// The first video's state once the browser has read its metadata.
const char *videoReady = "(() => { const v = document.querySelector('video'); "
                         "return !!v && v.readyState >= 1 && v.videoWidth > 0; })()";

} // namespace

TEST(ServicePagesTest, ClipAndFolderPagesPlayInABrowser)
{
    const ServiceEndpoint service = fixtureService();
    const std::string token = issueToken(service, addUser(service, "Mia"));
    TempFolder folder;
    const std::string first =
        upload(service, token, makeClip(folder.path(), "a.mp4", 3, "1280x720"),
               "Clip 2026-11-23 21.04.07");
    const std::string second =
        upload(service, token, makeClip(folder.path(), "b.mp4", 2, "640x360"), "Second clip");
    auto http = client(service);
    const auto pack =
        http->Post("/v1/packs", bearer(token),
                   json({{"title", "Vantrel clips"}, {"clip_ids", {first, second}}}).dump(),
                   "application/json");
    ASSERT_EQ(pack->status, 200);
    const std::string packUrl = json::parse(pack->body)["url"];
    ASSERT_TRUE(waitForPoster(service, first));

    HeadlessBrowser browser;
    browser.open(service.url + "/c/" + first);
    ASSERT_TRUE(browser.waitUntil(videoReady)) << "the browser never read the clip";
    const json clip = browser.evaluate(
        "(() => { const v = document.querySelector('video'); return {src: v.currentSrc, "
        "width: v.videoWidth, height: v.videoHeight, duration: v.duration, poster: v.poster, "
        "controls: v.controls}; })()");
    EXPECT_EQ(clip["src"], service.url + "/files/" + first + ".mp4");
    EXPECT_EQ(clip["width"], 1280);
    EXPECT_EQ(clip["height"], 720);
    EXPECT_NEAR(clip["duration"].get<double>(), 3.0, 0.2);
    EXPECT_EQ(clip["poster"], service.url + "/files/" + first + ".jpg");
    EXPECT_EQ(clip["controls"], true);
    // Seeking asks for a byte range; the browser must land there and show a frame.
    EXPECT_TRUE(
        browser
            .evaluate("new Promise(done => { const v = document.querySelector('video'); "
                      "v.addEventListener('seeked', () => done(v.readyState >= 2), {once: true}); "
                      "v.currentTime = 2.0; })")
            .get<bool>());
    browser.screenshot(screenshotFolder() / "clip-page.png");

    browser.open(packUrl);
    const json sources =
        browser.evaluate("[...document.querySelectorAll('video source')].map(s => s.src)");
    EXPECT_EQ(sources,
              json({service.url + "/files/" + first + ".mp4",
                    service.url + "/files/" + second + ".mp4"}));
    EXPECT_EQ(browser.evaluate("[...document.querySelectorAll('a[href^=\"/c/\"]')].length"), 2);
    // The folder page loads nothing until asked; asking must work.
    browser.evaluate(
        "document.querySelectorAll('video').forEach(v => { v.preload = 'metadata'; v.load(); })");
    EXPECT_TRUE(
        browser.waitUntil("[...document.querySelectorAll('video')].every(v => v.readyState >= 1)"));
    browser.screenshot(screenshotFolder() / "folder-page.png");
}

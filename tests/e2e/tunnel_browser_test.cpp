// A real browser opens the device's web page from NM's side of the tunnel; busybox httpd is the device's web server.
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tunnel_stage.h"

static std::string program_path(const std::vector<std::string> &places)
{
    for (const std::string &place : places) {
        if (access(place.c_str(), X_OK) == 0) {
            return place;
        }
    }
    return "";
}

// A bitmap of noise, 3 bytes a pixel.
static std::string picture(uint32_t width, uint32_t height, unsigned seed)
{
    const auto le32 = [](uint32_t value) {
        std::string bytes;
        for (int shift = 0; shift < 32; shift += 8) {
            bytes += static_cast<char>(value >> shift);
        }
        return bytes;
    };
    const std::string pixels = noise(size_t(width) * height * 3, seed); // width is a multiple of 4: no padding
    return "BM" + le32(static_cast<uint32_t>(54 + pixels.size())) + le32(0) + le32(54) + le32(40) + le32(width) +
           le32(height) + std::string("\1\0\x18\0", 4) + le32(0) + le32(static_cast<uint32_t>(pixels.size())) +
           std::string(16, '\0') + pixels;
}

static const int k_pictures = 8;

// The page names a style sheet, pictures and a script; when all have loaded the script fetches a file of data as well
// and then leaves a mark with what it has seen.
static void write_site(const std::string &dir)
{
    std::string page = "<!doctype html><html><head><title>device</title><link rel=stylesheet href=style.css>"
                       "<link rel=icon href=data:,></head><body>";
    for (int i = 0; i < k_pictures; i++) {
        const std::string name = "picture" + std::to_string(i) + ".bmp";
        std::ofstream(dir + "/" + name) << picture(256, 256, static_cast<unsigned>(i)); // 192 KiB
        page += "<img src=" + name + ">";
    }
    std::ofstream(dir + "/index.html") << page + "<p id=mark>none</p><script src=app.js></script></body></html>";
    std::ofstream(dir + "/style.css") << "#mark { color: rgb(1, 2, 3) } /*" << std::string(100000, '*') << "*/";
    std::ofstream(dir + "/data.bin") << noise(300000, 9);
    std::ofstream(dir + "/app.js") << R"(
document.body.insertAdjacentHTML('beforeend', '<p id=ran></p>');
window.onload = () => {
  const bytes = new XMLHttpRequest();
  bytes.open('GET', 'data.bin', false);   // the load event, and so the browser, waits for it
  bytes.overrideMimeType('text/plain; charset=x-user-defined');
  bytes.send();
  let sum = 0;
  for (const c of bytes.responseText) sum += c.charCodeAt(0) & 255;
  const pictures = [...document.images].filter(i => i.complete && i.naturalWidth == 256).length;
  const color = getComputedStyle(document.getElementById('mark')).color;
  document.getElementById('mark').textContent =
    pictures + ' pictures, ' + color + ', ' + bytes.responseText.length + ' bytes, sum ' + sum;
};
)";
}

static std::string output_of(const std::string &command)
{
    std::string output;
    FILE *pipe = popen(command.c_str(), "r");
    char some[4096];
    size_t got;
    while ((got = fread(some, 1, sizeof(some), pipe)) > 0) {
        output.append(some, got);
    }
    pclose(pipe);
    return output;
}

static void page_through_tunnel(bool https)
{
    const std::string browser = program_path({"/usr/bin/chromium"});
    const std::string httpd = program_path({"/bin/busybox", "/usr/bin/busybox"});
    if (browser.empty() || httpd.empty()) {
        GTEST_SKIP() << "no browser or no web server: install chromium and busybox";
    }
    if (*PLUGIN_RUNNER != '\0') {
        GTEST_SKIP() << "the emulator cannot be trusted to start a browser";
    }
    TunnelStage stage;
    char site[] = "/tmp/tunnel_site.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(site));
    write_site(site);
    DeviceService device(serve_program({httpd, "httpd", "-i", "-h", site}));
    ASSERT_TRUE(tunnel_stage_start(&stage, https, &device, nullptr));
    ASSERT_TRUE(web_open(&stage));

    const std::string profile = std::string(site) + "/.profile";
    const std::string page =
        output_of("timeout 120 " + browser +
                  " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking"
                  " --disable-component-update --disable-sync --disable-dev-shm-usage --dump-dom --user-data-dir=" +
                  profile + " http://127.0.0.1:" + std::to_string(stage.web->client_port()) + "/index.html 2>" + site +
                  "/.errors");
    unsigned sum = 0;
    for (unsigned char byte : noise(300000, 9)) {
        sum += byte;
    }
    EXPECT_NE(std::string::npos, page.find(std::to_string(k_pictures) + " pictures, rgb(1, 2, 3), 300000 bytes, sum " +
                                           std::to_string(sum) + "<"))
        << page << file_text(std::string(site) + "/.errors");
    EXPECT_GE(stage.web->stats().bytes_in, k_pictures * 3u * 256 * 256 + 100000 + 300000);
    EXPECT_GE(device.accepted(), k_pictures + 4);
    EXPECT_EQ("", tunnel_problems(stage));
    ASSERT_EQ(0, system(("rm -rf " + std::string(site)).c_str()));
}

TEST(TunnelBrowser, PageWithAllItsAssets)
{
    page_through_tunnel(false);
}

TEST(TunnelBrowser, PageWithAllItsAssetsOverTls)
{
    page_through_tunnel(true);
}

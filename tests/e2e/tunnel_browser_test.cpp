// A real browser opens the device's web page from NM's side of the tunnel; busybox httpd is the device's web server.
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tunnel_stage.h"

static const int k_pictures = 8;

// 256 by 256 pixels of noise, 192 KiB.
static std::string bitmap(unsigned seed)
{
    static const char k_head[] = "BM\x36\0\3\0\0\0\0\0\x36\0\0\0\x28\0\0\0\0\1\0\0\0\1\0\0\1\0\x18\0\0\0\0\0\0\0\3";
    return std::string(k_head, sizeof(k_head)) + std::string(16, '\0') + noise(3 << 16, seed);
}

// The page names a style sheet, pictures and a script; when all have loaded the script fetches a file of data as well
// and then leaves a mark with what it has seen.
static void write_site(const std::string &dir)
{
    std::string page = "<!doctype html><html><head><title>device</title><link rel=stylesheet href=style.css>"
                       "<link rel=icon href=data:,></head><body>";
    for (int i = 0; i < k_pictures; i++) {
        const std::string name = "picture" + std::to_string(i) + ".bmp";
        std::ofstream(dir + "/" + name) << bitmap((unsigned)i);
        page += "<img src=" + name + ">";
    }
    std::ofstream(dir + "/index.html") << page + "<p id=mark>none</p><script src=app.js></script></body></html>";
    std::ofstream(dir + "/style.css") << "#mark { color: rgb(1, 2, 3) } /*" << std::string(100000, '*') << "*/";
    std::ofstream(dir + "/data.bin") << noise(300000, 9);
    std::ofstream(dir + "/app.js") << R"(
window.onload = () => {
  const mark = document.getElementById('mark'), data = new XMLHttpRequest();
  data.open('GET', 'data.bin', false);   // the load event, and so the browser, waits for it
  data.overrideMimeType('text/plain; charset=x-user-defined');
  data.send();
  const sum = [...data.responseText].reduce((all, c) => all + (c.charCodeAt(0) & 255), 0);
  const pictures = [...document.images].filter(i => i.complete && i.naturalWidth == 256).length;
  mark.textContent = pictures + ' pictures, ' + getComputedStyle(mark).color + ', sum ' + sum;
};
)";
}

static void page_through_tunnel(bool https)
{
    TunnelStage stage;
    char site[] = "/tmp/tunnel_site.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(site));
    write_site(site);
    DeviceService device(serve_program({"/bin/busybox", "httpd", "-i", "-h", site}));
    ASSERT_TRUE(tunnel_stage_start(&stage, https, &device, nullptr) && web_open(&stage));
    const std::string dir = site, page = dir + "/.page";
    (void)!system(("timeout 120 /usr/bin/chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
                   " --disable-background-networking --disable-component-update --disable-sync --disable-dev-shm-usage"
                   " --dump-dom --user-data-dir=" +
                   dir + "/.profile http://127.0.0.1:" + std::to_string(stage.web->client_port()) + "/index.html >" +
                   page + " 2>" + dir + "/.errors")
                      .c_str());
    unsigned sum = 0;
    for (unsigned char byte : noise(300000, 9))
        sum += byte;
    EXPECT_TRUE(text_has(file_text(page),
                         std::to_string(k_pictures) + " pictures, rgb(1, 2, 3), sum " + std::to_string(sum) + "<"))
        << file_text(page) << file_text(dir + "/.errors");
    EXPECT_GE(stage.web->stats().bytes_in, k_pictures * (3u << 16) + 100000 + 300000);
    EXPECT_GE(device.accepted(), k_pictures + 4);
    ASSERT_EQ(0, system(("rm -rf " + dir).c_str()));
}

TEST(TunnelBrowser, PageWithAllItsAssets)
{
    if (access("/usr/bin/chromium", X_OK) != 0 || access("/bin/busybox", X_OK) != 0)
        GTEST_SKIP() << "no browser or no web server: install chromium and busybox";
    if (*PLUGIN_RUNNER != '\0')
        GTEST_SKIP() << "the emulator cannot be trusted to start a browser";
    page_through_tunnel(false);
    page_through_tunnel(true);
}

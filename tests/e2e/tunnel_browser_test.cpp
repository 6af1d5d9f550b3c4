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

// A page in a frame, loaded ten times: sixty pictures, each time under names of their own. Every second load is cut
// short after twenty of them, while the browser's connections for the others stand; two host names make them twelve.
// The mark gets the whole loads' pictures.
static void write_reloads(const std::string &dir)
{
    for (int i = 0; i < 60; i++)
        std::ofstream(dir + "/asset" + std::to_string(i) + ".svg")
            << "<svg xmlns='http://www.w3.org/2000/svg'><!--" << std::string(5000 + (size_t)i * 1000, 'x')
            << "--></svg>";
    std::ofstream(dir + "/reload.html") << "<!doctype html><link rel=icon href=data:,><p id=mark>loads</p>"
                                           "<iframe src=inner.html?0></iframe>";
    std::ofstream(dir + "/inner.html") << R"(<!doctype html><script>
const load = Number(location.search.slice(1)), mark = parent.document.getElementById('mark');
let seen = 0, failed = 0, over = false;
const step = event => {
  event.type == 'load' ? seen++ : failed++;
  if (over || (load % 2 == 0 ? seen < 20 : seen + failed < 60)) return;
  over = true;
  mark.textContent += load % 2 ? ' ' + seen : '';
  if (load < 9) location.replace('inner.html?' + (load + 1));
};
for (let i = 0; i < 60; i++)
  Object.assign(new Image(), {onload: step, onerror: step,
    src: '//' + ['127.0.0.1', 'localhost'][i % 2] + ':' + location.port + '/asset' + i + '.svg?' + load});
</script>)";
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

// The page as it stands when the browser has loaded it all.
static std::string page_of(const TunnelStage &stage, const std::string &dir, const std::string &name)
{
    const std::string page = dir + "/.page";
    (void)!system(("timeout 120 /usr/bin/chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
                   " --disable-background-networking --disable-component-update --disable-sync --disable-dev-shm-usage"
                   " --dump-dom --user-data-dir=" +
                   dir + "/.profile http://127.0.0.1:" + std::to_string(stage.web->client_port()) + "/" + name + " >" +
                   page + " 2>" + dir + "/.errors")
                      .c_str());
    return file_text(page);
}

static void pages_through_tunnel(bool https)
{
    TunnelStage stage;
    char site[] = "/tmp/tunnel_site.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(site));
    write_site(site);
    write_reloads(site);
    DeviceService device(serve_program({"/bin/busybox", "httpd", "-i", "-h", site}));
    ASSERT_TRUE(tunnel_stage_start(&stage, https, &device, nullptr) && web_open(&stage));
    const std::string dir = site;
    unsigned sum = 0;
    for (unsigned char byte : noise(300000, 9))
        sum += byte;
    const std::string page = page_of(stage, dir, "index.html");
    EXPECT_TRUE(
        text_has(page, std::to_string(k_pictures) + " pictures, rgb(1, 2, 3), sum " + std::to_string(sum) + "<"))
        << page << file_text(dir + "/.errors");
    EXPECT_GE(stage.web->stats().bytes_in, k_pictures * (3u << 16) + 100000 + 300000);
    EXPECT_GE(device.accepted(), k_pictures + 4);
    const std::string reloaded = page_of(stage, dir, "reload.html");
    EXPECT_TRUE(text_has(reloaded, "loads 60 60 60 60 60<")) << reloaded;
    EXPECT_TRUE(device.wait_serving(0)); // nothing is left of the loads that were cut short
    ASSERT_EQ(0, system(("rm -rf " + dir).c_str()));
}

TEST(TunnelBrowser, PageWithAllItsAssets)
{
    if (access("/usr/bin/chromium", X_OK) != 0 || access("/bin/busybox", X_OK) != 0)
        GTEST_SKIP() << "no browser or no web server: install chromium and busybox";
    if (*PLUGIN_RUNNER != '\0')
        GTEST_SKIP() << "the emulator cannot be trusted to start a browser";
    pages_through_tunnel(false);
    pages_through_tunnel(true);
}

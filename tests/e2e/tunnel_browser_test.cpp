// A real browser opens the device's web page from NM's side of the tunnel; busybox httpd is the device's web server.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tunnel_stage.h"

// A page in a frame, loaded ten times: sixty pictures, each time under names of their own. Every second load is cut
// short after twenty of them, while the browser's connections for the others stand; two host names make them twelve.
// The mark gets the whole loads' pictures.
static void write_site(const std::string &dir)
{
    for (int i = 0; i < 60; i++)
        std::ofstream(dir + "/asset" + std::to_string(i) + ".svg")
            << "<svg xmlns='http://www.w3.org/2000/svg'><!--" << std::string(5000 + (size_t)i * 1000, 'x')
            << "--></svg>";
    std::ofstream(dir + "/index.html") << "<!doctype html><link rel=icon href=data:,><p id=mark>loads</p>"
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

TEST(TunnelBrowser, PageThatIsReloadedAndCutShort)
{
    if (access("/usr/bin/chromium", X_OK) != 0 || access("/bin/busybox", X_OK) != 0)
        GTEST_SKIP() << "no browser or no web server: install chromium and busybox";
    if (*PLUGIN_RUNNER != '\0')
        GTEST_SKIP() << "the emulator cannot be trusted to start a browser";
    for (bool https : {false, true}) {
        SCOPED_TRACE(https);
        TunnelStage stage;
        char site[] = "/tmp/tunnel_site.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(site));
        write_site(site);
        DeviceService device(serve_program({"/bin/busybox", "httpd", "-i", "-h", site}));
        ASSERT_TRUE(tunnel_stage_start(&stage, https, &device, nullptr) && web_open(&stage));
        const std::string page = page_of(stage, site, "index.html");
        EXPECT_TRUE(text_has(page, "loads 60 60 60 60 60<")) << page;
        EXPECT_TRUE(device.wait_serving(0)); // nothing is left of the loads that were cut short
        std::filesystem::remove_all(site);
    }
}

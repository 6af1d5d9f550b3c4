#include "nm/device_init.h"

#include <fstream>

#include "device/dev_msg_recv.h"
#include "device_files.h"
#include "nm/nm_msg_table.h"
#include "nm/nm_session.h"
#include "peers.h"
#include "runtime/plugin_config.h"

// A working directory with both input files, NM, and a listening device.
struct World {
    TempDir directory;
    NmPeer nm;
    std::string device_port;
    int listener = listen_socket(&device_port);
    DeviceCfg cfg = device_cfg_default(".", false, std::stoi(nm.port), std::stoi(device_port));
    std::string init_cfg = device_cfg_text(cfg);

    World()
    {
        start_process_once();
        EXPECT_EQ(chdir(directory.path.c_str()), 0);
        nm_msg_table_init();
        nm.answer_set("active", {http_ok(R"({"status":200,"result":{"host":"127.0.0.1","port":9}})")});
        std::ofstream("init") << init_cfg;
        std::ofstream("config.ini")
            << "[device_info]\ninit_cfg = ./init\n[plugin_config]\nlog_std = 1\nlog_level = 7\n";
        info_edit([](PluginInfo *next) { (void)text_set(next->init_cfg_path, "./init"); });
    }
    ~World()
    {
        restart_device_init();
        alarm(0);
        conn_remove_all();
        close(listener);
        free_device_buffers();
    }
};

// Waits grow with the failures; every fifth reads config.ini again. Only a restart brings the short wait back.
TEST(DeviceInit, RetryStages)
{
    World w;
    std::ofstream("init") << "{";
    for (int failure = 1; failure <= 16; failure++) {
        SCOPED_TRACE(failure);
        LogLines log;
        device_init_pass();
        const char *delay = failure < 5 ? "len: 10000 ms\n" : failure < 10 ? "len: 30000 ms\n" : "len: 120000 ms\n";
        EXPECT_EQ(log.count(delay), 1);
        EXPECT_EQ(log.has_in_order({"Init config failed over 5 times, re-initialize!\n",
                                    "Reading config file: ", "Init config failed, re-initialize!\n"}),
                  failure % 5 == 0);
        EXPECT_EQ(log.has("The device TCP connection is lost!\n"), failure == 1);
    }
    std::ofstream("init") << w.init_cfg;
    device_init_pass();
    std::ofstream("init") << "{";
    restart_device_init();
    LogLines log;
    device_init_pass();
    EXPECT_EQ(log.count("len: 10000 ms\n"), 1);
}

// Restarts and period changes from other threads while passes succeed: every timer that was started was stopped.
TEST(DeviceInit, RestartsFromOtherThreads)
{
    World w;
    LogLines log;
    std::atomic<bool> done{false};
    std::thread restarter([&] {
        while (!done)
            restart_device_init();
    });
    std::thread commander([&] {
        for (int i = 0; !done; i++) {
            udp_detection_period_set(100 + i % 2);
            run_status_period_set(200 + i % 2);
        }
    });
    for (int i = 0; i < 20; i++)
        device_init_pass();
    done = true;
    restarter.join();
    commander.join();
    g_init_done = 1;
    restart_device_init();
    EXPECT_EQ(log.count("Start timer for 'p_timer->handler', "), log.count("Stop timer, timerid"));
}

// The device changes what it is at any moment of a pass, once the init cfg has been read: it does not stay online so,
// and the wait for the next pass is the short one.
TEST(DeviceInit, IdentityChangesDuringAPass)
{
    World w;
    std::ofstream("init") << "{";
    for (int failure = 1; failure <= 5; failure++)
        device_init_pass();
    std::ofstream("init") << w.init_cfg;
    LogLines log(2);
    for (int i = 0; i < 300; i++) {
        device_cfg_set_text(&w.cfg, "pversion", std::to_string(i));
        std::thread device([&] {
            const int fd = accept(w.listener, nullptr, nullptr);
            usleep((useconds_t)i * 5);
            std::ofstream("init") << device_cfg_text(w.cfg);
            reload_init_cfg();
            close(fd);
        });
        device_init_pass();
        device.join();
        EXPECT_EQ(0, g_init_done) << i;
        EXPECT_LE(alarm(0), 10u);
        conn_remove_all();
    }
}

// With start_spread_s the passes at start and after a restart come later by a random time; one in 3,601 is none.
TEST(DeviceInit, StartsAreSpread)
{
    World w;
    nm_session_begin();
    EXPECT_EQ(1, g_enable_init_flag);
    std::ofstream("config.ini", std::ios::app) << "start_spread_s = 3600\n";
    LogLines log;
    read_plugin_config();
    nm_session_begin();
    EXPECT_EQ(0, g_enable_init_flag);
    EXPECT_GT(nm_session_next_pass_ms(), 0);
    g_init_done = 1;
    restart_device_init();
    EXPECT_EQ(1, log.count("The first bring-up pass comes in "));
    EXPECT_EQ(0, log.count("len: 10000 ms\n"));
    EXPECT_EQ(2, log.count("Start timer for 'enable_init_flag'"));
}

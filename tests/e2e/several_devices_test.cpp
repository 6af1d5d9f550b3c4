// NM keeps its devices apart: what is queued for one is handed to that one, what is queued for any to who asks first.
#include <gtest/gtest.h>
#include <unistd.h>

#include "device_service.h"
#include "nm_check.h"
#include "nm_sim.h"

// What NM answers to that device; everything sent is right.
static std::string answer_to(NmSim *nm, const std::string &serial, const std::string &name)
{
    const std::string ver =
        name == "handshake" ? "{\n\"ver\":\"1.3\"\n}" : "{\n\t\"ver\":\"1.3\",\n\t\"deviceSn\":\"" + serial + "\"\n}";
    const int fd = client_connect(nm_sim_port(nm));
    fd_send(fd, "POST /dev-api/" + serial + "/" + name +
                    " HTTP/1.1\r\nHOST: 127.0.0.1:" + std::to_string(nm_sim_port(nm)) +
                    "\r\nAccept:\r\nContent-Type: application/json\r\nsecretKey: " + nm_signature(serial) +
                    "\r\npver: 1.3\r\ndeviceSn: " + serial +
                    "\r\nptype: 12\r\nContent-Length: " + std::to_string(ver.size()) + "\r\n\r\n" + ver);
    std::string answer;
    while (answer.find("\r\n\r\n") == std::string::npos)
        answer += fd_read(fd, 1);
    const size_t length = std::stoul(answer.substr(answer.find("Content-Length: ") + 16));
    answer = fd_read(fd, length);
    close(fd);
    return answer;
}

TEST(SeveralDevices, CommandsAreKeptApart)
{
    const std::string active = "{\"status\":200,\"result\":\"ACTIVE\"}", ack = "{\"status\":200,\"result\":\"ack\"}",
                      rec = "{\"status\":200,\"result\":\"rec\"}";
    auto payload = [](const std::string &text) { return "{\"status\":200,\"result\":{\"payload\":[" + text + "]}}"; };
    NmSim *nm = nm_sim_start(NmOptions());
    ASSERT_TRUE(nm);
    nm_sim_queue(nm, "{\"n\":1}", "B2");
    nm_sim_ask_restart(nm, "A1");
    EXPECT_EQ(rec, answer_to(nm, "A1", "heartbeat"));
    EXPECT_EQ(active, answer_to(nm, "A1", "heartbeat"));
    EXPECT_EQ(payload(""), answer_to(nm, "A1", "handshake"));
    EXPECT_EQ(ack, answer_to(nm, "B2", "heartbeat"));
    nm_sim_queue(nm, "{\"n\":2}");
    EXPECT_EQ(payload("{\"n\":1}"), answer_to(nm, "B2", "handshake"));
    EXPECT_EQ(ack, answer_to(nm, "A1", "heartbeat"));
    EXPECT_EQ(payload("{\"n\":2}"), answer_to(nm, "A1", "handshake"));
    EXPECT_EQ(active, answer_to(nm, "B2", "heartbeat"));
    EXPECT_EQ("", nm_sim_wrong(nm));
    nm_sim_stop(nm);
}

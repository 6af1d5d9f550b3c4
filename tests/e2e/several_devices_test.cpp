// NM keeps its devices apart: what is queued for one is handed to that one, what is queued for any to who asks first.
#include <gtest/gtest.h>
#include <unistd.h>

#include "device_service.h"
#include "nm_http.h"
#include "nm_sim.h"

// That device's request brings this result.
static void expect_result(NmSim *nm, const std::string &result, const std::string &serial, const std::string &name)
{
    const std::string answer = http_answer(200, "{\"status\":200,\"result\":" + result + "}");
    const int fd = client_connect(nm_sim_port(nm));
    fd_send(fd, "POST /dev-api/" + serial + "/" + name + " HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}");
    EXPECT_EQ(answer, fd_read(fd, answer.size()));
    close(fd);
}

TEST(SeveralDevices, CommandsAreKeptApart)
{
    NmSim *nm = nm_sim_start(NmOptions());
    ASSERT_TRUE(nm);
    nm_sim_queue(nm, "{\"n\":1}", "B2");
    nm_sim_ask_restart(nm, "A1");
    expect_result(nm, "\"rec\"", "A1", "heartbeat");
    expect_result(nm, "\"ACTIVE\"", "A1", "heartbeat");
    expect_result(nm, "{\"payload\":[]}", "A1", "handshake");
    expect_result(nm, "\"ack\"", "B2", "heartbeat");
    nm_sim_queue(nm, "{\"n\":2}");
    expect_result(nm, "{\"payload\":[{\"n\":1}]}", "B2", "handshake");
    expect_result(nm, "\"ack\"", "A1", "heartbeat");
    expect_result(nm, "{\"payload\":[{\"n\":2}]}", "A1", "handshake");
    expect_result(nm, "\"ACTIVE\"", "B2", "heartbeat");
    nm_sim_stop(nm);
}

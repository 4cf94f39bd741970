// What the lives of faults_test.cpp found, each at its own place.
#include <errno.h>

#include "cloud/session.h"
#include "faults/life.h"

namespace {

struct mended : faults_test {};

// Nobody would order the connection again that the task would have made.
TEST_F(mended, a_reconnection_without_a_thread) {
    prepare();
    life_t life{cloud.get(), page};
    life.launch("pthread_create", EAGAIN, UINT_MAX, false);
    ASSERT_TRUE(life.daemon.await_log("server start..."));
    client_t agent;
    ASSERT_TRUE(life.pass(&agent));
    life.fail(page->calls + 1, true);
    EXPECT_TRUE(answered(&agent, "reconnect_cloud"));
    EXPECT_TRUE(life.daemon.await_log("fail to create a task to reconnect"));
    life.recover();
    EXPECT_TRUE(life.comes_back(&agent));
}

// OpenSSL would stay half set up, and the daemon run without ever connecting, or crash.
TEST_F(mended, openssl_without_memory) {
    prepare();
    life_t healthy{cloud.get(), page};
    healthy.launch("memory", ENOMEM, UINT_MAX, false);
    ASSERT_TRUE(healthy.daemon.await_log("server start..."));
    const unsigned calls = page->calls;
    for (unsigned first = calls / 4; first <= calls / 4 * 3; first += calls / 4) {
        life_t life{cloud.get(), page};
        life.launch("memory", ENOMEM, first, false);
        EXPECT_EQ(life.daemon.await_exit(20000), 254) << first << life.log_end();
    }
}

// The descriptor would be left blocking, and SSL_read wait inside it with the lock held.
TEST_F(mended, a_descriptor_that_fcntl_fails_on) {
    prepare();
    behave([](sim_behaviour_t* behaviour) { behaviour->heartbeat = sim_heartbeat_t::silent; });
    life_t life{cloud.get(), page};
    life.launch("fcntl", EINVAL, 1, true);
    ASSERT_TRUE(life.daemon.await_log("server start..."));
    client_t agent;
    EXPECT_FALSE(answered(&agent, "register_callback", R"({"hello_cloud":0})"));
    kill(life.daemon.pid, SIGTERM);
    EXPECT_EQ(life.daemon.await_exit(20000), 0) << life.log_end();
}

// A connection without its time-out task would never be given up.
TEST(mended_session, a_timeout_task_without_memory_replaces_the_connection) {
    cJSON_Hooks none = {[](size_t) -> void* { return nullptr; }, free};
    inner_api_t api;
    api.ssl_socket = ssl_socket_init("none.pem", nullptr);
    api.state = INNER_API_AVAILABLE | INNER_API_CONNECTED;
    session_task_t task = {&api, ssl_socket_get_connection(api.ssl_socket)};
    cJSON_InitHooks(&none);
    task_timeout_check(&task);
    cJSON_InitHooks(nullptr);
    EXPECT_FALSE(inner_is_connected(&api));
    ssl_socket_destroy(api.ssl_socket);
}

}  // namespace

#include <regex>

#include "capture.h"
#include "util/log.h"
#include "util/task_pool.h"

struct log_test : captured_t {};

TEST_F(log_test, a_line_has_every_column_and_lines_of_many_threads_never_mix) {
    std::vector<std::jthread> threads;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
        threads.emplace_back([letter] {
            for (int i = 0; i < 50; ++i) {
                log_print(i % 2 == 0 ? "WARN" : "ERROR", "main.c", 31, "main", "%s%d",
                          std::string(3000, letter).c_str(), 7);
            }
        });
    }
    threads.clear();
    const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \| ( WARN|ERROR) \| )" +
                          std::to_string(getpid()) +
                          R"(:0x[0-9A-F]+ \| main\.c:31 \| main \| - (a|b|c|d))");
    std::istringstream lines(log.text());
    int count = 0;
    for (std::string text; std::getline(lines, text); ++count) {
        const size_t message = text.find(" - ") + 3;
        ASSERT_TRUE(std::regex_match(text.substr(0, message + 1), line)) << text;
        ASSERT_EQ(text.substr(message), std::string(3000, text[message]) + "7");
    }
    EXPECT_EQ(count, 200);
}

TEST(clock_test, a_deadline_holds_across_the_wrap_of_the_clock) {
    const uint32_t long_ago = monotonic_ms_get() - 0xF0000000U;  // 46 days
    EXPECT_LE(deadline_left(deadline_t{long_ago, UINT32_MAX}), 0x0FFFFFFFU);
    EXPECT_GT(deadline_left(deadline_t{long_ago, UINT32_MAX}), 0x0F000000U);
    EXPECT_EQ(deadline_left(deadline_t{long_ago, 0xF0000000U}), 0U);
    EXPECT_EQ(deadline_left(deadline_in(-5)), 0U);
}

TEST(json_test, numbers_of_any_type_and_size_are_read_safely) {
    const struct {
        const char* json;
        int32_t number;
    } cases[] = {{R"({"v":-1.9})", -1}, {R"({"v":1e300})", INT32_MAX}, {R"({"v":-3e9})", INT32_MIN},
                 {R"({"v":"7"})", 0},   {R"({"v":{"v":7}})", 0},       {"[7]", 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(json_get_int(json_ptr(cJSON_Parse(c.json)).get(), "V"), c.number) << c.json;
    }
    EXPECT_EQ(json_get_string(json_ptr(cJSON_Parse(cases[0].json)).get(), "v"), nullptr);
    EXPECT_EQ(json_scale(INT32_MAX, 1000), INT32_MAX);
    EXPECT_EQ(string_dup(nullptr), nullptr);
}

// Tasks that add one another.
struct chain_t {
    task_pool_t* pool = task_pool_init();
    std::atomic<int> left{4}, done{0};

    static void work(void* arg) {
        auto* const chain = static_cast<chain_t*>(arg);
        std::this_thread::yield();
        if (--chain->left > 0) {
            EXPECT_EQ(task_pool_add(chain->pool, work, finish, chain), 0);
        }
    }
    static void finish(void* arg) {
        std::this_thread::yield();
        ++static_cast<chain_t*>(arg)->done;
    }
};

TEST(task_pool_test, destroy_waits_for_every_task_just_added_and_for_its_done) {
    for (int i = 0; i < 100; ++i) {
        chain_t chain;
        ASSERT_EQ(task_pool_add(chain.pool, nullptr, chain_t::finish, &chain), -20107);
        ASSERT_EQ(task_pool_add(chain.pool, chain_t::finish, nullptr, &chain), 0);
        ASSERT_EQ(task_pool_add(chain.pool, chain_t::work, chain_t::finish, &chain), 0);
        task_pool_destroy(chain.pool);
        ASSERT_EQ(chain.done, 5);
    }
}

#include "cloud/msg_id_pool.h"

#include <algorithm>

#include "capture.h"

struct msg_id_pool_test : captured_t {
    using pool_ptr = owned_t<msg_id_pool_t, msg_id_pool_destroy>;

    static int32_t take(const pool_ptr& pool, int32_t timeout_ms = 0, int32_t client = 0) {
        const msg_data_t data = {monotonic_ms_get(), timeout_ms, client};
        return msg_id_get_from_idle(pool.get(), &data);
    }
};

TEST_F(msg_id_pool_test, ids_go_round) {
    // Each begins with the pool's size; ids as expected, what is given back is negative.
    const std::vector<int32_t> cases[] = {
        {1, 1, -1, 1},
        {3, 1, 2, 3, -2, 2, -1, 1, -3, -2, 2, 3},
        {5, 1, 2, 3, 4, -1, -2, -3, -4, 5, 1, 2, 3, 4},
        {3, 1, 2, -1, -1, -1, 3, 1},  // given back more than once
    };
    for (const auto& ids : cases) {
        const pool_ptr pool(msg_id_pool_init(ids[0]));
        for (size_t i = 1; i < ids.size(); ++i) {
            if (ids[i] > 0) {
                ASSERT_EQ(take(pool), ids[i]);
            }
            msg_id_put_to_idle(pool.get(), -ids[i]);  // an id below 1 is refused
        }
        EXPECT_EQ(take(pool), CLOUD_SVR_E_TIMEOUT);
    }
}

TEST_F(msg_id_pool_test, every_id_of_a_pool_around_its_blocks_borders) {
    EXPECT_EQ(msg_id_pool_init(0), nullptr);
    for (const int32_t size : {1, 63, 64, 65, 128, 129}) {
        SCOPED_TRACE(size);
        const pool_ptr pool(msg_id_pool_init(size));
        for (int32_t id = 1; id <= size; ++id) {
            ASSERT_EQ(take(pool, 0, 100 + id), id);
        }
        ASSERT_EQ(take(pool), CLOUD_SVR_E_TIMEOUT);
        for (int32_t id = size; id > 0; id -= 2) {
            ASSERT_EQ(msg_id_pool_get_data(pool.get(), id)->client_fd, 100 + id);
            msg_id_put_to_idle(pool.get(), id);
            ASSERT_EQ(msg_id_pool_get_data(pool.get(), id), nullptr);
        }
        for (int32_t id = size % 2 == 0 ? 2 : 1; id <= size; id += 2) {
            ASSERT_EQ(take(pool), id);
        }
        for (const int32_t id : {0, size + 1, INT32_MIN, INT32_MAX}) {
            log.clear();
            EXPECT_EQ(msg_id_pool_get_data(pool.get(), id), nullptr);
            EXPECT_TRUE(log.has("- the message is out of range\n"));
        }
    }
}

TEST_F(msg_id_pool_test, a_wait_for_an_id_ends) {
    const pool_ptr pool(msg_id_pool_init(1));
    ASSERT_EQ(take(pool), 1);
    const deadline_t wait = deadline_in(40);
    EXPECT_EQ(take(pool, 40), CLOUD_SVR_E_TIMEOUT);
    EXPECT_EQ(deadline_left(wait), 0U);
    std::vector<std::jthread> takers;
    for (int i = 0; i < 3; ++i) {
        takers.emplace_back([&] {
            EXPECT_EQ(take(pool, 30000), 1);
            msg_id_put_to_idle(pool.get(), 1);
        });
    }
    msg_id_put_to_idle(pool.get(), 1);
    takers.clear();
    ASSERT_EQ(take(pool), 1);
    takers.emplace_back([&] { EXPECT_EQ(take(pool, 30000), CLOUD_SVR_E_NO_CONNECTION); });
    msg_id_pool_close(pool.get());
}

TEST_F(msg_id_pool_test, overdue_records) {
    const msg_data_t at_1000[] = {{900, 100, 1},          {901, 100, 0}, {0xFFFFFFF0U, 1016, 1},
                                  {0xFFFFFFF0U, 1017, 0}, {1001, 0, 0},  {1000, 0, 1}};
    const pool_ptr pool(msg_id_pool_init(200));
    std::vector<int32_t> expected, found;
    for (const msg_data_t& data : at_1000) {
        const int32_t id = msg_id_get_from_idle(pool.get(), &data);
        expected.insert(expected.end(), static_cast<size_t>(data.client_fd), id);
        for (int i = 0; i < 30; ++i) {  // spread over the blocks
            msg_id_put_to_idle(pool.get(), take(pool));
        }
    }
    msg_data_t data = {};
    for (int32_t id = 0; (id = msg_id_take_overdue(pool.get(), id, 1000, &data)) != 0;) {
        found.push_back(id);
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(msg_id_take_overdue(pool.get(), 200, 1000, &data), 0);
}

TEST_F(msg_id_pool_test, of_an_answer_and_a_time_out_exactly_one_gets_the_record) {
    constexpr int32_t size = 65;
    const pool_ptr pool(msg_id_pool_init(size));
    for (int round = 0; round < 100; ++round) {
        std::atomic<int> got[size + 1] = {};
        while (take(pool) > 0) {
        }
        std::vector<std::jthread> threads;
        for (const bool answers : {true, false, true}) {
            threads.emplace_back([&, answers, now_ms = monotonic_ms_get()] {
                msg_data_t data = {};
                for (int32_t id = 1; answers && id <= size; ++id) {
                    got[id] += msg_id_take(pool.get(), id, &data);
                }
                int32_t id = answers ? size : 0;
                while ((id = msg_id_take_overdue(pool.get(), id, now_ms, &data)) != 0) {
                    ++got[id];
                }
            });
        }
        threads.clear();
        ASSERT_EQ(std::count(got + 1, got + size + 1, 1), size);
    }
}

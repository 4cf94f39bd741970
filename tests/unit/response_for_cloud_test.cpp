#include "cloud/response_for_cloud.h"

#include "capture.h"

struct response_list_test : captured_t {
    using list_ptr = owned_t<response_list_t, response_list_destroy>;

    const char* const late = R"({"error_code":-20002,"msg":"Request timeout"})";
    list_ptr patient{response_list_init(30000)}, instant{response_list_init(0)};

    static void expect(const list_ptr& list, int32_t id, int32_t code, const char* text,
                       bool wait = false) {
        char* got = nullptr;
        const auto get = wait ? response_data_wait : response_data_get_response;
        EXPECT_EQ(get(list.get(), id, &got), code);
        EXPECT_STREQ(text_ptr(got).get(), text);
    }
};

TEST_F(response_list_test, an_entry_lives_until_its_answer_is_taken) {
    response_list_t* const list = patient.get();
    EXPECT_EQ(response_data_set_response(list, 7, "a"), CLOUD_SVR_E_NOT_FOUND);
    EXPECT_TRUE(log.has("- can not find the message id, id=7\n"));
    for (const int32_t id : {7, 8, 9}) {
        EXPECT_EQ(response_data_add(list, id), 0);
        expect(patient, id, CLOUD_SVR_E_PENDING, nullptr);
    }
    EXPECT_EQ(response_data_set_response(list, 8, "a"), 0);
    EXPECT_EQ(response_data_set_response(list, 8, "b"), 0);
    expect(patient, 9, CLOUD_SVR_E_PENDING, nullptr);
    expect(patient, 8, 0, "b");
    expect(patient, 8, CLOUD_SVR_E_NOT_FOUND, nullptr);
    EXPECT_EQ(response_data_set_response(list, 7, "old"), 0);
    EXPECT_EQ(response_data_add(list, 7), 0);  // in place of the answered one
    expect(patient, 7, CLOUD_SVR_E_PENDING, nullptr);
    char text[] = "set", *set = text;
    EXPECT_EQ(response_data_get_response(list, 7, &set), CLOUD_SVR_E_ARGUMENT);
}

TEST_F(response_list_test, the_time_out_answer_spares_answered_entries_and_yields_to_late_ones) {
    for (const int32_t id : {1, 2, 3}) {
        ASSERT_EQ(response_data_add(instant.get(), id), 0);
        ASSERT_EQ(response_data_add(patient.get(), id), 0);
    }
    EXPECT_EQ(response_data_set_response(instant.get(), 1, "in time"), 0);
    response_data_check_timeout(instant.get());
    response_data_check_timeout(patient.get());
    EXPECT_EQ(response_data_set_response(instant.get(), 2, "too late"), 0);
    expect(instant, 1, 0, "in time");
    expect(instant, 2, 0, "too late");
    expect(instant, 3, 0, late);
    expect(patient, 3, CLOUD_SVR_E_PENDING, nullptr);
}

TEST_F(response_list_test, a_wait_ends_by_the_answer_by_its_time_and_by_closing) {
    const list_ptr hasty(response_list_init(40));
    const deadline_t wait = deadline_in(40);
    ASSERT_EQ(response_data_add(hasty.get(), 2), 0);
    expect(hasty, 2, 0, late, true);  // though nobody checks
    EXPECT_EQ(deadline_left(wait), 0U);
    for (const int32_t id : {1, 3}) {
        ASSERT_EQ(response_data_add(patient.get(), id), 0);
    }
    std::jthread client([&] { response_data_set_response(patient.get(), 1, "{}"); });
    expect(patient, 1, 0, "{}", true);
    std::jthread closer([&] { response_list_close(patient.get()); });
    expect(patient, 3, CLOUD_SVR_E_NO_CONNECTION, nullptr, true);
}

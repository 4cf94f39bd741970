#include "cloud/cloud_kit.h"

#include "capture.h"

struct cloud_kit_test : captured_t {};

TEST_F(cloud_kit_test, no_library_and_one_without_functions) {
    EXPECT_EQ(cloud_kit_init("none.so"), nullptr);
    EXPECT_TRUE(log.has("none.so: cannot open shared object file"));
    EXPECT_EQ(cloud_kit_get_func(nullptr), nullptr);
    const owned_t<cloud_kit_t, cloud_kit_destroy> kit(cloud_kit_init(KIT_EMPTY));
    ASSERT_NE(kit, nullptr);
    const cloud_kit_func_t* const func = cloud_kit_get_func(kit.get());
    EXPECT_TRUE(func->respond_cloud == nullptr && func->build_request_of_hello_cloud == nullptr &&
                func->recv_response_of_hello_cloud == nullptr);
}

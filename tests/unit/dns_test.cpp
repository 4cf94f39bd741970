#include "link/dns.h"

#include <algorithm>
#include <set>

#include "capture.h"

struct dns_test : captured_t {
    using list_ptr = owned_t<ip_list_t, ip_list_destroy>;

    // The next `count` answers, "-" for the end of a round.
    static std::string next(const list_ptr& list, int count) {
        const char* const ip = ip_list_get_next_ip(list.get());
        return (ip == nullptr ? "-" : ip) + (count > 1 ? next(list, count - 1) : "");
    }
};

TEST_F(dns_test, rounds) {
    for (const std::string expected : {"ABC-BC-BC-BC", "AB-B-B-B", "A----", "---"}) {
        const list_ptr list(ip_list_init());
        for (size_t i = 0; i < expected.find('-'); ++i) {
            ASSERT_EQ(ip_list_add(list.get(), expected.substr(i, 1).c_str()), 0);
        }
        EXPECT_EQ(next(list, static_cast<int>(expected.size())), expected);
    }
    EXPECT_TRUE(log.has("- the IP list is empty\n"));
}

TEST_F(dns_test, a_list_is_filled_with_each_address_once_in_random_order) {
    char bytes[4][4] = {{1}, {2}, {3}, {4}};
    char* addresses[] = {bytes[0], bytes[1], bytes[2], bytes[3], nullptr};
    struct hostent host = {};
    host.h_addrtype = AF_INET;
    host.h_addr_list = addresses;
    std::set<std::string> orders;
    for (unsigned seed = 0; seed < 20; ++seed) {
        srand(seed);
        const list_ptr list(ip_list_init());
        ASSERT_EQ(ip_list_fill(list.get(), &host), 0);
        const std::string order = next(list, 4), all = "1.0.0.02.0.0.03.0.0.04.0.0.0";
        EXPECT_TRUE(std::is_permutation(order.begin(), order.end(), all.begin(), all.end()));
        EXPECT_EQ(next(list, 1), "-");
        orders.insert(order);
    }
    EXPECT_GT(orders.size(), 1U);
}

TEST_F(dns_test, names) {
    // Once or twice: the C library takes an IPv6 line of /etc/hosts for localhost as IPv4's.
    EXPECT_EQ(next(list_ptr(ip_list_parse("localhost")), 1), "127.0.0.1");
    EXPECT_EQ(ip_list_parse(std::string(300, 'a').c_str()), nullptr);  // no resolver is asked
    EXPECT_TRUE(log.has("- fail to get host by name, error="));
}

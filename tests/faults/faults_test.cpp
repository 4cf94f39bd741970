// A short whole life of the daemon, again and again: each time another call of a kind fails, once,
// or from then on until the shortage is over. No allocation is left out, as none is known that
// makes a library abort. The environment chooses:
//   FAULTS_LIVES   at most about so many lives for a kind, spread evenly; 0: one for every call
//   FAULTS_FIRST, FAULTS_LAST   the calls to begin and to end with
//   FAULTS_SHARD, FAULTS_SHARDS   which part of them, from 0, of how many
#include <errno.h>

#include <algorithm>

#include "faults/life.h"

namespace {

struct fault_t {
    const char* call;
    int error;  // 0: a transfer comes short
};

const fault_t kinds[] = {{"memory", ENOMEM},
                         {"pthread_create", EAGAIN},
                         {"socket", EMFILE},
                         {"accept4", EMFILE},
                         {"accept4", ECONNABORTED},
                         {"connect", ENETUNREACH},
                         {"connect", EINTR},
                         {"select", EINTR},
                         {"select", EBADF},
                         {"poll", EINTR},
                         {"poll", ENOMEM},
                         {"send", EINTR},
                         {"send", 0},
                         {"send", ENOBUFS},
                         {"recv", EINTR},
                         {"recv", 0},
                         {"recv", ENOMEM},
                         {"read", EINTR},
                         {"read", 0},
                         {"read", ECONNRESET},
                         {"write", EINTR},
                         {"write", 0},
                         {"write", ECONNRESET},
                         {"gethostbyname", EAGAIN},
                         {"clock_gettime", EINVAL},
                         {"localtime_r", EOVERFLOW},
                         {"eventfd", EMFILE},
                         {"fcntl", EINVAL}};

std::string name_of(const testing::TestParamInfo<std::tuple<fault_t, bool>>& item) {
    const auto& [fault, on] = item.param;
    return std::string(fault.call) + "_" +
           (fault.error == 0 ? "short" : strerrorname_np(fault.error)) + (on ? "_on" : "_once");
}

unsigned setting(const char* name, unsigned otherwise) {
    const char* const value = getenv(name);
    return value != nullptr ? static_cast<unsigned>(strtoul(value, nullptr, 10)) : otherwise;
}

struct each_call : faults_test, testing::WithParamInterface<std::tuple<fault_t, bool>> {};

TEST_P(each_call, may_fail) {
    prepare();
    const auto& [fault, on] = GetParam();
    life_t healthy{cloud.get(), page};
    healthy.launch(fault.call, fault.error, UINT_MAX, on);
    ASSERT_EQ(healthy.live(), "") << healthy.log_end();
    const unsigned calls = page->calls;
    const unsigned lives =
        setting("FAULTS_LIVES", 0) * (fault.call == std::string("memory") ? 5 : 1);
    const unsigned stride = lives == 0 ? 1 : std::max(calls / lives, 1U);
    const unsigned step = stride * setting("FAULTS_SHARDS", 1);
    unsigned injected = 0;
    unsigned survived = 0;
    unsigned first = setting("FAULTS_FIRST", 1) + stride * setting("FAULTS_SHARD", 0);
    for (bool reached = true; reached && first <= setting("FAULTS_LAST", UINT_MAX); first += step) {
        life_t life{cloud.get(), page};
        life.launch(fault.call, fault.error, first, on);
        const std::string wrong = life.live();
        reached = page->failed > 0;
        injected += reached ? 1 : 0;
        survived += reached && wrong.empty() ? 1 : 0;
        EXPECT_EQ(wrong, "") << "call " << first << life.log_end();
    }
    printf("faults: %u injections, %u survived\n", injected, survived);
}

INSTANTIATE_TEST_SUITE_P(, each_call, testing::Combine(testing::ValuesIn(kinds), testing::Bool()),
                         name_of);

}  // namespace

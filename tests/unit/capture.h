// What the tests share: standard output captured, owners, temporary folders, local sockets.
#pragma once

#include <stdio.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cloud_svr_codes.h"
#include "util/clock.h"
#include "util/json.h"
#include "util/memory.h"

template <auto release>
struct releaser_t {
    template <typename record_t>
    void operator()(record_t* record) const {
        release(record);
    }
};
template <typename record_t, auto release>
using owned_t = std::unique_ptr<record_t, releaser_t<release>>;

// Takes everything printed on standard output while it exists, so the log as well; passes it on at
// its end if the test has failed.
struct capture_t {
    descriptor_t before{dup(1)};
    descriptor_t taken{memfd_create("log", MFD_CLOEXEC)};

    capture_t() {
        fflush(stdout);
        dup2(taken.fd, 1);
    }
    ~capture_t() {
        const std::string all = text();
        dup2(before.fd, 1);
        fputs(testing::Test::HasFailure() ? all.c_str() : "", stdout);
    }
    std::string text() const {
        fflush(stdout);
        std::string all(static_cast<size_t>(lseek(taken.fd, 0, SEEK_END)), '\0');
        EXPECT_EQ(pread(taken.fd, all.data(), all.size(), 0), static_cast<ssize_t>(all.size()));
        return all;
    }
    bool has(const std::string& part) const { return text().find(part) != std::string::npos; }
    void clear() const {
        fflush(stdout);
        EXPECT_EQ(ftruncate(taken.fd, 0), 0);
        lseek(taken.fd, 0, SEEK_SET);
    }
};

struct captured_t : testing::Test {
    capture_t log;
};

// A new folder, removed with all that is in it.
struct folder_t {
    std::string path = testing::TempDir() + "cloud_svr_unit_XXXXXX";

    folder_t() { EXPECT_NE(mkdtemp(path.data()), nullptr); }
    ~folder_t() { std::filesystem::remove_all(path); }
    std::string file(const std::string& name, const std::string& content) const {
        std::ofstream(path + "/" + name) << content;
        return path + "/" + name;
    }
};

struct socket_pair_t {
    descriptor_t here, there;

    socket_pair_t() {
        int both[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both), 0);
        here.fd = both[0];
        there.fd = both[1];
    }
    void write_there(const std::string& bytes) const {
        EXPECT_EQ(write(there.fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
};

// Temporary platform roots and child processes for the platform tests.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "plat.h"

extern char **environ;

namespace ptest {

inline std::string slurp(const std::string &path)
{
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

inline bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// A fresh platform root, made the process's ZEM_ROOT for the test's length;
// whatever the test attached is detached at its end.
class TempRoot : public ::testing::Test {
protected:
    std::string root;

    void SetUp() override
    {
        char tmpl[] = "/tmp/zemplat-test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        setenv("ZEM_ROOT", root.c_str(), 1);
    }
    void TearDown() override
    {
        shmnm_detach();
        shmcm_detach();
        sem_detach();
        zemstorage_term();
        unsetenv("ZEM_ROOT");
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
    std::string at(const std::string &rel) const { return root + "/" + rel; }
    void put(const std::string &rel, const std::string &text) const
    {
        std::filesystem::create_directories(std::filesystem::path(at(rel)).parent_path());
        std::ofstream(at(rel), std::ios::binary) << text;
    }
};

// A child with stdout and stderr in the file out. env comes before this
// process's environment (ZEM_ROOT included), so it wins.
inline pid_t spawn(std::vector<std::string> args, const std::string &out, std::vector<std::string> env = {})
{
    std::vector<char *> argv, envp;
    for (std::string &a : args)
        argv.push_back(a.data());
    for (std::string &e : env)
        envp.push_back(e.data());
    for (char **e = environ; *e != nullptr; e++)
        envp.push_back(*e);
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp.data()) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

// Polls until done() holds, for a generous minute at most.
template <class F> bool eventually(F done)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (std::chrono::steady_clock::now() > end)
            return false;
    return true;
}

// Exit status (128 + signal when killed), or -1 when it did not end in time
// (it is then killed).
inline int finish(pid_t pid)
{
    int st = 0;
    if (!eventually([&] { return waitpid(pid, &st, WNOHANG) != 0; })) {
        kill(pid, SIGKILL);
        waitpid(pid, &st, 0);
        return -1;
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

inline bool await_text(const std::string &path, const std::string &text)
{
    return eventually([&] { return has(slurp(path), text); });
}

} // namespace ptest

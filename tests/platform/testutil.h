// Temporary platform roots and child processes for the platform tests.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern char **environ;

namespace ptest {

inline std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void spit(const std::string &path, const std::string &text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// A fresh platform root, made the process's ZEM_ROOT for the test's length.
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
        unsetenv("ZEM_ROOT");
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
    std::string at(const std::string &rel) const { return root + "/" + rel; }
    void put(const std::string &rel, const std::string &text) const { spit(at(rel), text); }
};

// A child with stdout and stderr in one file and its own ZEM_ROOT.
struct child {
    pid_t pid = -1;
    std::string out;
};

inline child spawn(const std::vector<std::string> &args, const std::string &root, const std::string &out,
                   const std::vector<std::string> &extra_env = {})
{
    std::vector<std::string> env;
    for (char **e = environ; *e != nullptr; e++)
        if (strncmp(*e, "ZEM_ROOT=", 9) != 0)
            env.emplace_back(*e);
    env.push_back("ZEM_ROOT=" + root);
    for (const std::string &e : extra_env)
        env.push_back(e);
    std::vector<char *> argv, envp;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    for (const std::string &e : env)
        envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    child c;
    c.out = out;
    if (posix_spawn(&c.pid, args[0].c_str(), &fa, nullptr, argv.data(), envp.data()) != 0)
        c.pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return c;
}

// Exit status (128 + signal when killed), or -1 when it did not end within
// the limit (it is then killed).
inline int finish(const child &c, int limit_s = 60)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(limit_s);
    int st = 0;
    while (waitpid(c.pid, &st, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            kill(c.pid, SIGKILL);
            waitpid(c.pid, &st, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

// Runs to the end and returns the exit status; the output is in *text.
inline int run(const std::vector<std::string> &args, const std::string &root, std::string *text,
               const std::vector<std::string> &extra_env = {})
{
    std::string out = root + "/.out." + std::to_string(getpid()) + "." + std::to_string(rand());
    int rc = finish(spawn(args, root, out, extra_env));
    if (text != nullptr)
        *text = slurp(out);
    unlink(out.c_str());
    return rc;
}

// Waits (generously) until the file contains the text.
inline bool await_text(const std::string &path, const std::string &text, int limit_s = 60)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(limit_s);
    while (std::chrono::steady_clock::now() < end) {
        if (slurp(path).find(text) != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

} // namespace ptest

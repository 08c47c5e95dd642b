/* SPDX-License-Identifier: Apache-2.0 */
/* A broker of the test's own, in a process of its own. */
#ifndef QOR_TESTS_MQTT_BROKER_HPP
#define QOR_TESTS_MQTT_BROKER_HPP

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "await.hpp"

extern char **environ;

/* A port of the loopback interface that nobody listens on now. */
inline int free_port()
{
    struct sockaddr_in address = {};
    socklen_t size = sizeof(address);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), size), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    close(fd);
    return ntohs(address.sin_port);
}

inline bool somebody_listens(int port)
{
    struct sockaddr_in address = {};
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool found = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    close(fd);
    return found;
}

/* A program with its standard output in a file. Ended by the destructor at the latest. */
class Program {
public:
    Program() = default;
    ~Program() { end(SIGKILL); }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    void start(const std::vector<std::string> &words, const std::string &output)
    {
        std::vector<char *> arguments;
        for (const std::string &word : words) {
            arguments.push_back(const_cast<char *>(word.c_str()));
        }
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                         0600);
        posix_spawn_file_actions_adddup2(&files, 1, 2);
        ASSERT_EQ(posix_spawnp(&pid_, arguments[0], &files, nullptr, arguments.data(), environ), 0);
        posix_spawn_file_actions_destroy(&files);
    }

    /* Its status once it has ended by itself. */
    int wait()
    {
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return status;
    }

    void tell(int signal) const { EXPECT_EQ(kill(pid_, signal), 0); }

    void end(int signal)
    {
        if (pid_ > 0) {
            tell(signal);
            wait();
        }
    }

    bool running() const { return pid_ > 0; }

private:
    pid_t pid_ = 0;
};

/* A folder that is gone with the test. */
class Folder {
public:
    Folder()
    {
        char name[] = "/tmp/qor_mqtt_XXXXXX";
        path_ = mkdtemp(name);
    }
    ~Folder()
    {
        const std::string command = "rm -rf " + path_;
        EXPECT_EQ(system(command.c_str()), 0);
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline std::string text_of(const std::string &path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

/* The broker. */
class Broker {
public:
    /* Lines for its configuration; without any, everybody may do everything. */
    void start(const std::string &lines = "allow_anonymous true\n")
    {
        if (!port_) {
            port_ = free_port();
        }
        std::ofstream(folder_ / "broker.conf")
            << "listener " << port_ << " 127.0.0.1\nuser root\nlog_type all\n"
            << lines;
        program_.start({QOR_BROKER, "-c", folder_ / "broker.conf"}, folder_ / "broker.log");
        ASSERT_TRUE(await([this] { return somebody_listens(port_); })) << log();
    }

    void stop(int signal = SIGTERM) { program_.end(signal); }

    int port()
    {
        if (!port_) {
            port_ = free_port();
        }
        return port_;
    }
    std::string log() const { return text_of(folder_ / "broker.log"); }
    const Folder &folder() const { return folder_; }

private:
    Folder folder_;
    int port_ = 0;
    Program program_;
};

#endif /* QOR_TESTS_MQTT_BROKER_HPP */

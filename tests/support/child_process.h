// A program that runs beside a test and ends with it.
#pragma once

#include <csignal>
#include <string>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace vvl::test
{

class ChildProcess
{
  public:
    // words: the program's path or name, and its arguments. error_output: a
    // descriptor that the program gets a copy of; -1 leaves it the test's.
    explicit ChildProcess(std::vector<std::string> words, int error_output = -1)
    {
        std::vector<char *> arguments;
        for (std::string &word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (error_output >= 0) {
                dup2(error_output, STDERR_FILENO);
            }
            execvp(arguments[0], arguments.data());
            _exit(127);
        }
    }
    ~ChildProcess() { kill(); }
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    void signal(int number) const { ::kill(pid_, number); }
    bool has_ended() { return wait(WNOHANG) != running; }
    // Both return its status as of waitpid.
    int wait_for_end() { return wait(0); }
    int kill()
    {
        if (!has_ended()) {
            signal(SIGKILL);
        }
        return wait(0);
    }

  private:
    static constexpr int running = -1;
    int wait(int options)
    {
        int status = 0;
        if (status_ == running && waitpid(pid_, &status, options) == pid_) {
            status_ = status;
        }
        return status_;
    }

    pid_t pid_ = -1;
    int status_ = running;
};

} // namespace vvl::test

/*
 * What a test's own process writes to standard error, while it is captured.
 */
#ifndef TILVANE_TEST_STDERR_CAPTURE_H
#define TILVANE_TEST_STDERR_CAPTURE_H

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <thread>

namespace tilvane {
namespace test {

/* Redirects file descriptor 2 into a pipe drained by a reader thread. */
class StderrCapture {
public:
    StderrCapture()
    {
        if (pipe(fds_) != 0) {
            ADD_FAILURE() << "pipe failed";
            return;
        }
        saved_ = dup(STDERR_FILENO);
        dup2(fds_[1], STDERR_FILENO);
        close(fds_[1]);
        reader_ = std::thread([this] {
            char buffer[4096];
            ssize_t n;
            while ((n = read(fds_[0], buffer, sizeof buffer)) > 0) {
                text_.append(buffer, static_cast<size_t>(n));
            }
        });
    }

    ~StderrCapture() { Stop(); }

    std::string Stop()
    {
        if (saved_ >= 0) {
            dup2(saved_, STDERR_FILENO); /* closes the last write end: the reader sees EOF */
            close(saved_);
            saved_ = -1;
            reader_.join();
            close(fds_[0]);
        }
        return text_;
    }

private:
    int fds_[2] = {-1, -1};
    int saved_ = -1;
    std::thread reader_;
    std::string text_;
};

}  // namespace test
}  // namespace tilvane

#endif

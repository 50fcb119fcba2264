// A named foundation Thread that runs a callable, for tests that need work on
// a thread with a known Thread object (name, id).
//
//   FunctionThread worker("Renderer", [&] { timeline.beginSection("draw", nullptr, ""); ... });
//   worker.start();
//   worker.join();
//
// Threads: as Thread. The callable runs on the new thread; an exception
// escaping it ends the process (as for any Thread body).
#ifndef QOR_TESTS_SUPPORT_FUNCTIONTHREAD_H
#define QOR_TESTS_SUPPORT_FUNCTIONTHREAD_H

#include "qor/common/system/Thread.h"

#include <functional>
#include <string>
#include <utility>

namespace qor {
namespace test {

class FunctionThread : public common::system::Thread
{
public:
    FunctionThread(const std::string& name, std::function<void()> body)
        : Thread(name), m_Body(std::move(body))
    {
    }
    ~FunctionThread() override { join(); }

    void run() override { m_Body(); }

    // Starts a thread, runs `body` on it and waits for its end.
    static void runAndJoin(const std::string& name, std::function<void()> body)
    {
        FunctionThread thread(name, std::move(body));
        thread.start();
        thread.join();
    }

private:
    std::function<void()> m_Body;
};

} // namespace test
} // namespace qor

#endif

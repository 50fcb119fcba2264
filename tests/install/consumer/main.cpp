// A ten-line user of the installed libraries.
#include "qor/Version.h"
#include "qor/common/logging/Logger.h"
#include "qor/common/system/Thread.h"

#include <cstdio>

int main()
{
    qor::common::logging::Logger logger("consumer");
    logger << qor::common::logging::LogLevel::Info << "qor " << QOR_VERSION_STRING << std::endl;
    std::printf("consumer ok on thread %s\n", qor::common::system::Thread::getCurrentThread().getName());
    return 0;
}

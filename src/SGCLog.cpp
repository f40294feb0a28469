#include "SGCLog.h"

#include <log4cplus/fileappender.h>
#include <log4cplus/helpers/loglog.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loggingmacros.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace {

constexpr const char* ROLLING_FILE = "/var/log/quorsyncd.log";
constexpr const char* MARKER_FILE = "/var/log/quorsyncd.cfg";
constexpr long MAX_FILE_SIZE = 0x200000;
constexpr int BACKUP_FILES = 5;
constexpr bool FLUSH_EVERY_EVENT = false;  // a busy resync must not pay a disk write per line
constexpr bool CREATE_DIRECTORIES = true;
constexpr bool USE_UTC = false;

}  // namespace

SGCLog::SGCLog() {
    log4cplus::initialize();
    log4cplus::SharedAppenderPtr appender(new log4cplus::RollingFileAppender(
        ROLLING_FILE, MAX_FILE_SIZE, BACKUP_FILES, FLUSH_EVERY_EVENT, CREATE_DIRECTORIES));
    appender->setName("First");
    appender->setLayout(std::make_unique<log4cplus::TTCCLayout>(USE_UTC));
    log4cplus::Logger::getRoot().addAppender(appender);
    logger = log4cplus::Logger::getRoot();
    enabled = access(MARKER_FILE, R_OK) == 0;
}

void SGCLog::printDebug(std::string_view message) {
    if (!enabled || !logger.isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) {
        return;
    }
    // The origin is a fixed text: the event must not change with the layout of this file.
    logger.forcedLog(log4cplus::DEBUG_LOG_LEVEL, std::string(message), "src/SGCLog.cpp", 40,
                     "void SGCLog::printDebug(const std::string&)");
}

void SGCLog::close() {
    // Another thread may still log: without an appender the library would complain on stderr.
    log4cplus::helpers::LogLog::getLogLog()->setQuietMode(true);
    logger.removeAllAppenders();
}

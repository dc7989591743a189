#include "hardware/file_logger.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <thread>

#include "hardware/system_facts.h"
#include "hardware/time_format.h"

FileLogger::FileLogger(const std::string& folder) {
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    _file_name = folder + "/lanewright_" + time_stamp() + "_" + std::to_string(getpid()) + ".log";
    _file.open(_file_name, std::ios::out | std::ios::app);
    if (!_file.is_open()) std::cout << "Error: Unable to create log file" << std::endl;
}

std::string FileLogger::current_time() {
    using namespace std::chrono;
    const auto now = system_facts().now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[96];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(millis));
    return text;
}

void FileLogger::dump(const std::string& message) {
    // The line is built outside the lock so writers only queue for the write.
    std::ostringstream line;
    line << current_time() << " : " << std::this_thread::get_id() << " : " << message << '\n';
    std::lock_guard<std::mutex> guard(_mutex);
    if (!_file.is_open()) return;
    _file << line.str();
    _file.flush();
}

Logger& Logger::get() {
    static Logger instance(FILE_STREAM);
    return instance;
}

Logger::Logger(StreamType type) {
    if (type == FILE_STREAM) _logger = std::make_unique<FileLogger>();
}

void Logger::log(const std::string& message) {
    if (_logger) _logger->dump(message);
}

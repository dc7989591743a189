// One log file per run: "lanewright_logs/lanewright_<time stamp>_<pid>.log",
// one line per message: time " : " thread id " : " message.
#pragma once

#include <atomic>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>

class LoggerInterface {
public:
    virtual ~LoggerInterface() = default;
    virtual void dump(const std::string& message) = 0;
    virtual std::string current_time() = 0;
};

class FileLogger : public LoggerInterface {
public:
    // The folder is made if missing. A file that can't be opened is reported
    // on standard output and the logger then drops every message.
    explicit FileLogger(const std::string& folder = "lanewright_logs");

    void dump(const std::string& message) override;
    // Local time of system_facts().now(), "YYYY-MM-DD HH:MM:SS.mmm".
    std::string current_time() override;

    const std::string& file_name() const { return _file_name; }

private:
    std::mutex _mutex;
    std::ofstream _file;
    std::string _file_name;
};

enum StreamType {
    FILE_STREAM = 0,
    NO_STREAM = 1,  // messages go nowhere
};

class Logger {
public:
    // The process's logger; its file is opened at the first call.
    static Logger& get();

    explicit Logger(StreamType type);

    void log(const std::string& message);

    int get_level() const { return _level; }
    void set_level(int level) { _level = level; }

private:
    std::unique_ptr<LoggerInterface> _logger;
    std::atomic<int> _level{3};
};

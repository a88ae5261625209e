#include "lumora/base/log.hpp"

#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

namespace lumora::Log {

namespace {
void install(std::shared_ptr<spdlog::logger> logger, spdlog::level::level_enum level) {
    logger->set_level(level);
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %l %v");
    logger->flush_on(spdlog::level::info);
    spdlog::set_default_logger(std::move(logger));
}
}  // namespace

void toStderr(spdlog::level::level_enum level) {
    install(std::make_shared<spdlog::logger>("lumora", std::make_shared<spdlog::sinks::stderr_sink_mt>()), level);
}

void toFile(const std::filesystem::path& file, spdlog::level::level_enum level) {
    try {
        auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file.string(), 2 * 1024 * 1024, 2);
        install(std::make_shared<spdlog::logger>("lumora", sink), level);
    } catch (const spdlog::spdlog_ex&) {
        silence();
    }
}

void silence() {
    install(std::make_shared<spdlog::logger>("lumora", std::make_shared<spdlog::sinks::null_sink_mt>()),
            spdlog::level::off);
}

}  // namespace lumora::Log

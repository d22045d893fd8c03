#pragma once

// The screen-cast services of the benchmarks: PipeWire, WirePlumber and the
// stand-in portal, started by the test fixture's scripts.

#include "ConfigurationManager.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

/// The source tree, for the service scripts: $ORVANTA_SOURCE_DIR, or the one
/// the build tree of this program was configured from.
inline std::string sourceRoot()
{
    if (const char* dir = std::getenv("ORVANTA_SOURCE_DIR"))
        return dir;
    char exe[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (length <= 0)
        return std::string();
    std::string dir(exe, std::size_t(length));
    for (int up = 0; up < 4; ++up) {
        dir = dir.substr(0, dir.find_last_of('/'));
        std::ifstream cache(dir + "/CMakeCache.txt");
        std::string line;
        const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
        while (std::getline(cache, line)) {
            if (line.compare(0, key.size(), key) == 0)
                return line.substr(key.size());
        }
    }
    return std::string();
}

/// PipeWire, WirePlumber and the stand-in portal, started by the test fixture's
/// scripts in a directory of their own, with a source of @p size.
class ScreenCastServices
{
public:
    explicit ScreenCastServices(const char* size)
    {
        char pattern[] = "/tmp/orvanta-wgc-bench-XXXXXX";
        if (!mkdtemp(pattern))
            return;
        m_dir = pattern;
        const std::string start = "ORVANTA_SCREENCAST_SIZE=" + std::string(size) + " " + sourceRoot()
            + "/scripts/services/pipewire-start.sh " + m_dir + " bench >/dev/null 2>&1";
        if (std::system(start.c_str()) != 0)
            return;
        std::ifstream env(m_dir + "/bench.env");
        std::string line;
        while (std::getline(env, line)) {
            const std::string prefix = "export ";
            const auto equals = line.find('=');
            if (line.compare(0, prefix.size(), prefix) != 0 || equals == std::string::npos)
                continue;
            ::setenv(line.substr(prefix.size(), equals - prefix.size()).c_str(), line.substr(equals + 1).c_str(), 1);
        }
        // Mode 1 keeps the portal's restore tokens in the configuration: a
        // private one, unless another benchmark made the store first.
        ConfigurationManager::setConfigPath(QString::fromStdString(m_dir + "/config"));
        m_running = true;
    }
    ~ScreenCastServices()
    {
        if (m_dir.empty())
            return;
        const std::string stop
            = sourceRoot() + "/scripts/services/pipewire-stop.sh " + m_dir + " bench >/dev/null 2>&1";
        std::system(stop.c_str());
        std::system(("rm -rf " + m_dir).c_str());
    }
    bool running() const
    {
        return m_running;
    }

private:
    std::string m_dir;
    bool m_running = false;
};

/// One set of services for the whole run, with a 1920x1080 source.
inline ScreenCastServices& screenCast1080()
{
    static ScreenCastServices services("1920x1080");
    return services;
}

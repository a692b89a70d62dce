// An agent's context inside the test: a fresh home directory, an optional configuration, and the
// thread's context filled from them. The home is removed and the context released at the end.

#ifndef TESTS_SUPPORT_AGENT_CONTEXT_H
#define TESTS_SUPPORT_AGENT_CONTEXT_H

#include <stdlib.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "client/zdepa/epa_context_mgr.h"
#include "client/zdepa/epa_init.h"
#include "client/zdepa/epa_option.h"

class AgentHome {
  public:
    AgentHome() {
        std::string pattern = testing::TempDir() + "zdepa_home_XXXXXX";
        path_ = mkdtemp(pattern.data());
        setenv("ZD_HOME", path_.c_str(), 1);
        unsetenv("WQ_HOME");
        std::filesystem::create_directories(agent_dir());
    }
    AgentHome(const AgentHome &) = delete;
    AgentHome &operator=(const AgentHome &) = delete;
    ~AgentHome() { std::filesystem::remove_all(path_); }

    const std::string &path() const { return path_; }
    std::string agent_dir() const { return path_ + "/client/zdepa"; }

    void configure(const std::string &text) const {
        std::ofstream(agent_dir() + "/zdepa.cfg") << text;
    }

    // All log files of the directory, one after another.
    std::string log(const std::string &directory = "") const {
        std::string text;
        const std::string where = directory.empty() ? agent_dir() : directory;
        for (const auto &entry : std::filesystem::directory_iterator(where)) {
            if (entry.path().filename().string().rfind("zdepa.log_", 0) != 0)
                continue;
            std::ostringstream bytes;
            bytes << std::ifstream(entry.path()).rdbuf();
            text += bytes.str();
        }
        return text;
    }

  private:
    std::string path_;
};

// A fixture whose thread has a context. Configuration lines go to start().
class AgentContextTest : public testing::Test {
  protected:
    void start(const std::string &configuration = "") {
        if (!configuration.empty())
            home_.configure(configuration);
        epa_init_dir();
    }

    void TearDown() override { epa_context_mgr_delete(); }

    AgentHome home_;
};

#endif

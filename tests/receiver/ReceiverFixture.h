// tests/receiver/ReceiverFixture.h: a Receiver brought up on a fresh base
// directory, and the check that every library object is gone at the end.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/log/LogCapture.h"
#include "platform/receiver/Receiver.h"
#include "platform/receiver/RefHolder.h"
#include "support/TempDir.h"

class ReceiverFixture : public ::testing::Test
{
protected:
    void TearDown() override { EXPECT_EQ(RefObjectLiveCount(), 0); }

    std::string Base() const { return temp.Path().string() + "/"; }
    std::string SocketPath() const { return Base() + "quelt.sock"; }

    RefHolder<Receiver> MakeReceiver(int32_t timeout = 10, const char* id = "test")
    {
        RefHolder<Receiver> receiver(CreateReceiver());
        EXPECT_TRUE(
            receiver->Init(Base().c_str(), id, ReceiverInitFlags, timeout, 1, 0, 0, 0, 0, 0));
        return receiver;
    }

    // The captured lines at a level ("ERROR", "WARN") that contain text.
    static std::vector<std::string> LinesWith(const LogCapture& log, const std::string& level,
                                              const std::string& text)
    {
        std::vector<std::string> found;
        for (const std::string& line : log.Lines())
            if (line.compare(0, level.size() + 1, level + " ") == 0 &&
                line.find(text) != std::string::npos)
                found.push_back(line);
        return found;
    }

    TempDir temp;
};

#ifndef MODULE_TEST_H
#define MODULE_TEST_H

#include <sys/ioctl.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.h"
#include "cvregistration_globals.h"
#include "cvregistration_state_machine.h"
#include "cvregistration_utils.h"
#include "cvutils/log.h"
#include "cvutils_stand_in.h"
#include "journal.h"
#include "scripted_calls.h"
#include "scripted_host.h"
#include "texts.h"

using Events = std::vector<std::string>;

inline Events joined(const std::vector<Events>& parts) {
    Events all;
    for (const Events& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

/// The events so far, or those that begin with one of the prefixes.
inline Events events(const std::vector<std::string>& prefixes = {""}) {
    return kit::journal().events(prefixes);
}

inline Events log_events() {
    return events({"log "});
}

/// A host at its start, with the settings' defaults.
class ModuleTest : public testing::Test {
protected:
    ModuleTest() {
        kit::calls::reset();
        kit::reset_cvutils();
        cv::registration::init_global_settings();
        kit::reset_cvutils(); // Once more, for the line about the settings.
        g_cvcloud_api = &cloud;
        kit::journal().clear();
    }

    ~ModuleTest() override {
        EXPECT_EQ(cloud.lent_responses(), 0U);
        // The blocks of unanswered requests are with the cloud.
        EXPECT_EQ(kit::calls::unreleased(), static_cast<int>(cloud.outstanding().size()));
        g_cvcloud_api = nullptr;
        g_registration_handler = nullptr;
    }

    kit::ScriptedHost cloud;
};

/// A registration object whose pipes are open, but whose worker the test plays itself.
class HandlerTest : public ModuleTest {
protected:
    HandlerTest() {
        g_registration_handler = &handler;
        EXPECT_TRUE(handler.thread.init_pipes());
        handler.reset();
        kit::journal().clear();
    }

    ~HandlerTest() override {
        handler.thread.uninit();
    }

    /// Wake-up bytes that the worker has not read.
    int wake_ups() const {
        int bytes = -1;
        EXPECT_EQ(ioctl(handler.thread.run_pipe[0], FIONREAD, &bytes), 0);
        return bytes;
    }

    cv::registration::RegistrationHandler handler;
};

#endif

// Loading plug-ins and what they register: descriptor, fields with defaults, hooks, the
// lifecycle calls, and the refusals (missing library, not a plug-in, other API version).
#include <gtest/gtest.h>

#include "fake_host.h"
#include "registration.h"

namespace {

using namespace hosttest;
using corvane_host::Host;

TEST(HostLoad, RegistersDescriptorFieldsDefaultsAndHooks) {
    Host host;
    ASSERT_FALSE(host.load_library(FAKE_PLUGIN));
    reset_fake_stats(host);
    ASSERT_EQ(host.plugin_count(), 1u);
    EXPECT_STREQ(host.plugin(0).desc->name, "fake");
    host.init_plugin(0, "a=1,b=2");
    EXPECT_STREQ(fake_stats(host).last_params, "a=1,b=2") << "parameters pass through unchanged";

    // What the host makes of the fields' types, sizes and defaults is queue_test.cpp's export.
    EXPECT_EQ(host.fields().size(), 4u);
    EXPECT_NE(host.plugin(0).postprocess, nullptr);
    EXPECT_NE(host.plugin(0).callback, nullptr);
    EXPECT_TRUE(host.problems().empty());
    host.shutdown();
    EXPECT_EQ(fake_stats(host).shutdown_calls, 1u);
}

TEST(HostLoad, QueuesGetTheirHooksAndAreTornDown) {
    Host host;
    ASSERT_FALSE(host.load_library(FAKE_PLUGIN));
    reset_fake_stats(host);
    host.init_plugin(0, nullptr);
    EXPECT_STREQ(fake_stats(host).last_params, "(null)");
    {
        corvane_host::Queue q0(host, 0, {}, [](corvane_host::FlowHandoff &&) {});
        corvane_host::Queue q1(host, 1, {}, [](corvane_host::FlowHandoff &&) {});
        EXPECT_EQ(fake_stats(host).init_queue_calls, 2u);
    }
    EXPECT_EQ(fake_stats(host).shutdown_queue_calls, 2u);
    host.shutdown();
    host.shutdown();  // once only
    EXPECT_EQ(fake_stats(host).shutdown_calls, 1u);
}

TEST(HostLoad, RefusesWhatItCannotRun) {
    struct Case {
        const char *path;
        const char *message;
    } cases[] = {
        {"/nonexistent/plugin.so", "cannot load plug-in /nonexistent/plugin.so"},
        {FAKE_PLUGIN_V7, "was built for plug-in API version 7; this host speaks version 8"},
        {"libm.so.6", "libm.so.6 is not a plug-in: it lacks corvane_api_version"},
    };
    for (const Case &c : cases) {
        Host host;
        auto problem = host.load_library(c.path);
        ASSERT_TRUE(problem) << c.path;
        EXPECT_NE(problem->find(c.message), std::string::npos) << *problem;
        EXPECT_EQ(host.plugin_count(), 0u);
    }
}

TEST(HostLoad, RegistrationsOutsideAnEntryPointAreRefused) {
    const unsigned long before = corvane_host::stray_host_calls();
    EXPECT_EQ(corvane_getter_add(nullptr, 0, ~0u, "X", 1, 4, 0, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, 0),
              nullptr);
    EXPECT_EQ(corvane_plugin_add(nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    corvane_hook_queue_filter(nullptr, 0, nullptr);
    host_flow_record flow{};
    EXPECT_EQ(corvane_hook_update_remove(&flow, 0, nullptr), nullptr);
    EXPECT_EQ(corvane_host::stray_host_calls(), before + 4);
}

}  // namespace

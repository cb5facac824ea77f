// An engine that was compiled for another version of the interface is not used.
#include <cstdlib>

#include <gtest/gtest.h>

#include "api/Engine.h"
#include "api/Registry.h"

const vxi::Engine vxi::kLinuxEngine = {VXI_ABI_VERSION, "linux", {}, nullptr};
const vxi::Engine vxi::kSimEngine = {VXI_ABI_VERSION + 1, "sim", {}, nullptr};

TEST(Registry, RefusesEnginesOfOtherVersions)
{
    const std::string refusal =
        "engine sim was compiled for version " + std::to_string(VXI_ABI_VERSION + 1) +
        " of the interface, not for version " + std::to_string(VXI_ABI_VERSION);
    setenv("VXI_ENGINE", "sim", 1);
    try {
        vxi::ChosenEngine();
        ADD_FAILURE();
    } catch (const vxi::Error& error) {
        EXPECT_EQ(error.what(), "VXI_ENGINE: " + refusal);
    }
    EXPECT_EQ(vxi_engine_select("sim"), -EINVAL);
    EXPECT_EQ(vxi_unknown_engine("sim"), refusal);
    EXPECT_EQ(vxi_engine_select("linux"), 0);
    EXPECT_EQ(&vxi::ChosenEngine(), &vxi::kLinuxEngine);
}

// An engine of one's own: what it leaves out is answered, what it throws is caught.
#include <new>
#include <stdexcept>

#include "Engine.h"
#include "Fixture.h"

namespace {

TEST(Defaults, EveryEmptySlotNamesEngineAndOperation)
{
    static const vxi::Operations none{};
    static const vxi::Engine engine{"made", &none, nullptr};
    vxi_handle_ops_s handle{};
    handle.operations = vxi::complete(engine);
    EXPECT_EQ(handle.operations, vxi::complete(engine));
    for (const auto& call : calls) {
        const std::string name = call.name;
        if (name == "vxi_capabilities") continue;
        const int status = name == "vxi_driver_available" ? 0 : -EOPNOTSUPP;
        EXPECT_EQ(status, call.make(&handle)) << name;
        EXPECT_EQ("not supported by engine made: " + name, error_text(&handle));
    }
    vxi_capability_s rows[7];
    ASSERT_EQ(7, vxi_capabilities(&handle, rows, 7));
    for (const vxi_capability_s& row : rows) {
        EXPECT_EQ(0, row.available);
        EXPECT_STREQ("not supported by engine made", row.detail);
    }
    handle.operations->close(&handle);
}

int (*answer)(Handle);  // of the engine below

// Whatever an engine does, the caller gets a status and a text that belongs to it.
TEST(Dispatch, NothingOfAnEngineEscapes)
{
    static vxi::Operations operations{};
    operations.get_conn_states = [](Handle h, vxa_get_conn_states_s*) { return answer(h); };
    static const vxi::Engine engine{"made", &operations, nullptr};
    vxi_handle_ops_s handle{};
    handle.operations = vxi::complete(engine);
    const struct {
        int (*answer)(Handle);
        int status;
        std::string text;
    } cases[] = {
        {[](Handle) -> int { throw std::bad_alloc(); }, -ENOMEM, "out of memory"},
        {[](Handle) -> int { throw std::runtime_error("p\xc3\xa9rdu"); }, -EIO, R"(p\xc3\xa9rdu)"},
        {[](Handle) { return -EPERM; }, -EPERM, "Operation not permitted"},
        {[](Handle h) { return vxi::fail(h, -EPERM, "%s", std::string(600, 'x').c_str()); }, -EPERM,
         std::string(221, 'x')},
    };
    for (const auto& each : cases) {
        answer = each.answer;
        vxa_get_conn_states_s states;
        EXPECT_EQ(VXI_E_UNKNOWN_VARIABLE, vxi_set_var(&handle, 999, 0)) << "an earlier text";
        EXPECT_EQ(each.status, vxi_get_conn_states(&handle, &states));
        EXPECT_EQ("engine made: vxi_get_conn_states: " + each.text, error_text(&handle));
    }
}

}  // namespace

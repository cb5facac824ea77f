// Every allocation fails once, and all after it.

#include "Zoo.h"

namespace {

Dog* s_dog;

int UseEverything(lua_State* L)
{
    SLB3::Namespace(L, "Some.name.with_a_component_longer_than_forty_characters")
        .set(
            "add", +[](int a, int b) { return a + b; })
        .set("name", &Dog::Name)
        .set("a_field_name_that_is_longer_than_forty_characters", "text")
        .subtable("sub")
        .set("x", 1)
        .subtable("deep")
        .set(
            "longText", +[] { return std::string(1000, 'x'); })
        .close()
        .set("dog", s_dog)
        .close()
        .set("number", 0.5);
    SLB3::Value<const Dog*>::Push(L, nullptr);
    SLB3::Value<Dog>::Push(L, *s_dog);
    SLB3::Value<Rock*>::Push(L, reinterpret_cast<Rock*>(64));
    luaL_argcheck(L, SLB3::internal::GetOrConvertPtr<Dog>(L, -2).first != nullptr, 1, "lost");
    if (luaL_dostring(L,
                      "local d = Zoo.Dog('a name of more characters than fit inside a string') "
                      "assert(d:puppy():self():name():match('second')) "
                      "local s = Some.name.with_a_component_longer_than_forty_characters "
                      "assert(#s.sub.deep.longText() == 1000 and s.add(1, 2) == 3)"))
        return lua_error(L);
    return 0;
}

// Runs with so many allocations allowed, then again without a limit. Whether one failed.
bool FailsWith(long allowed)
{
    LuaHost host;
    const int references = CountRegistryReferences(host.L);
    lua_pushcfunction(host.L, UseEverything);
    const std::string error = host.CallFailing(0, allowed, true);
    EXPECT_EQ(error, host.HasFailed() ? "not enough memory" : "");
    EXPECT_EQ(CountRegistryReferences(host.L), references);
    lua_pushcfunction(host.L, UseEverything);
    EXPECT_EQ(lua_pcall(host.L, 0, 0, 0), LUA_OK) << lua_tostring(host.L, -1);
    EXPECT_EQ(CountRegistryReferences(host.L), references);
    EXPECT_EQ(host.Close(), 0u);
    return host.HasFailed();
}

TEST(MemoryErrors, LeaveNothingBehind)
{
    Dog dog("rex");
    s_dog = &dog;
    long allowed = 0;
    for (; allowed < 5000 && FailsWith(allowed); ++allowed) {
        ASSERT_EQ(Dog::alive, 1) << "after " << allowed << " allocations";
        ASSERT_FALSE(HasFailure()) << "after " << allowed << " allocations";
    }
    EXPECT_LT(allowed, 5000) << "never got through";
    EXPECT_GT(allowed, 50) << "the sweep hit nothing";
}

}  // namespace

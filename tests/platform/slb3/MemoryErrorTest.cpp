// Every allocation of every operation fails once, and all after it.

#include <cstdlib>

#include "Zoo.h"

namespace {

// Lua's allocator with a budget of allocations; frees and shrinks always succeed, as
// Lua demands.
struct Budget {
    long left = -1;  // unlimited
    static void* Allocate(void* self, void* block, std::size_t old_size, std::size_t size)
    {
        long& left = static_cast<Budget*>(self)->left;
        if (size == 0) {
            std::free(block);
            return nullptr;
        }
        if (left >= 0 && (block == nullptr || size > old_size) && left-- == 0) {
            left = 0;
            return nullptr;
        }
        return std::realloc(block, size);
    }
};

int Add(int a, int b)
{
    return a + b;
}
std::string LongText()
{
    return std::string(1000, 'x');
}

Dog* s_dog;

int FillNamespace(lua_State* L)
{
    SLB3::Namespace(L, "Some.name.with_a_component_longer_than_forty_characters")
        .set("add", Add)
        .set("name", &Dog::Name)
        .set("a_field_name_that_is_longer_than_forty_characters", "text")
        .subtable("sub")
        .set("x", 1)
        .subtable("deep")
        .set("f", FillNamespace)
        .close()
        .set("dog", s_dog)
        .close()
        .set("number", 0.5);
    return 0;
}

int RegisterDog(lua_State* L)
{
    SLB3::Register<Dog>(L);
    return 0;
}

int PushObjects(lua_State* L)
{
    SLB3::Value<Dog*>::Push(L, s_dog);
    SLB3::Value<const Dog*>::Push(L, nullptr);
    SLB3::Value<Dog>::Push(L, *s_dog);
    SLB3::Value<Rock*>::Push(L, reinterpret_cast<Rock*>(64));
    luaL_argcheck(L, SLB3::internal::GetOrConvertPtr<Dog>(L, -2).first != nullptr, 1, "lost");
    return 0;
}

int RunScript(lua_State* L)
{
    SLB3::Register<Dog>(L);
    SLB3::Namespace(L, "F").set("longText", LongText).set("add", Add);
    if (luaL_dostring(L,
                      "local d = Zoo.Dog('a name of more characters than fit inside a string') "
                      "assert(d:puppy():self():name():match('second')) "
                      "assert(#F.longText() == 1000 and F.add(1, 2) == 3)"))
        return lua_error(L);
    return 0;
}

struct Operation {
    const char* name;
    lua_CFunction run;
};

void PrintTo(const Operation& operation, std::ostream* out)
{
    *out << operation.name;
}

class MemoryErrors : public testing::TestWithParam<Operation> {
protected:
    // Runs with so many allocations allowed, then again without a limit.
    void runWith(long allowed)
    {
        Budget budget;
        StatePtr L(lua_newstate(Budget::Allocate, &budget));
        luaL_openlibs(L.get());
        const int references = CountRegistryReferences(L.get());
        budget.left = allowed;
        lua_pushcfunction(L.get(), GetParam().run);
        m_status = lua_pcall(L.get(), 0, 0, 0);
        budget.left = -1;
        EXPECT_EQ(CountRegistryReferences(L.get()), references);
        if (m_status != LUA_OK) {
            EXPECT_STREQ(lua_tostring(L.get(), -1), "not enough memory");
        }

        lua_pushcfunction(L.get(), GetParam().run);
        EXPECT_EQ(lua_pcall(L.get(), 0, 0, 0), LUA_OK) << lua_tostring(L.get(), -1);
        EXPECT_EQ(CountRegistryReferences(L.get()), references);
    }

    int m_status = LUA_ERRMEM;
};

TEST_P(MemoryErrors, LeaveNothingBehind)
{
    Dog dog("rex");
    s_dog = &dog;
    const long most = 5000;
    long allowed = 0;
    for (; m_status != LUA_OK && allowed < most; ++allowed) {
        runWith(allowed);
        ASSERT_EQ(Dog::alive, 1) << "after " << allowed << " allocations";
        ASSERT_FALSE(HasFailure()) << "after " << allowed << " allocations";
    }
    EXPECT_EQ(m_status, LUA_OK) << "never got through";
    EXPECT_GT(allowed, 10) << "the sweep hit nothing";
}

INSTANTIATE_TEST_SUITE_P(Operations, MemoryErrors,
                         testing::Values(Operation{"FillNamespace", FillNamespace},
                                         Operation{"RegisterDog", RegisterDog},
                                         Operation{"PushObjects", PushObjects},
                                         Operation{"RunScript", RunScript}),
                         [](const auto& test) { return test.param.name; });

}  // namespace

#include <cstring>

#include "Zoo.h"

namespace {

using namespace std::string_literals;

template <typename T>
T Same(T value)
{
    return value;
}
template <typename T>
bool IsNull(T* dog)
{
    return dog == nullptr;
}
std::string Join(const std::string& a, const char* b, bool c)
{
    return a + "|" + b + "|" + (c ? "yes" : "no");
}

}  // namespace

SLB3_IMPLEMENTATION(Animal, animal)
{
    animal.set(
        "legs", +[](const Animal& of) { return of.legs; });
}

SLB3_IMPLEMENTATION(Dog, dog)
{
    dog.constructor<const char*>()
        .set("name", &Dog::Name)
        .set("rename", &Dog::Rename)
        .set("puppy", &Dog::Puppy)
        .set("self", &Dog::Self)
        .set("constSelf", &Dog::ConstSelf)
        .setMetamethod("__tostring", &Dog::Name);
}

SLB3_IMPLEMENTATION(Rock, rock)
{
    static_cast<void>(rock);
}

namespace {

class Functions : public LuaTest {
protected:
    Functions()
    {
        SLB3::Namespace(L, "Test.F")
            .set(
                "zero", +[] { return 0; })
            .set(
                "nothing", +[] {})
            .set("join", Join)
            .set("int", Same<int>)
            .set("byte", Same<unsigned char>)
            .set("unsigned", Same<unsigned long>)
            .set("long", Same<long>)
            .set(
                "half", +[](const double& value) { return value / 2; })
            .set(
                "throw", +[](int) -> int { throw std::runtime_error("100% broken"); })
            .set("isNull", IsNull<Dog>)
            .set("isNullConst", IsNull<const Dog>)
            .set(
                "nameOfCopy", +[](Dog dog) { return dog.name; });
        SLB3::Register<Animal>(L);
        SLB3::Register<Dog>(L);
        SLB3::Register<Rock>(L);
    }
};

#define WRONG(Number, Reason) "bad argument #" Number " to '?' (" Reason ")"

TEST_F(Functions, ConvertTheirArgumentsOrRefuse)
{
    const struct {
        const char* call;  // a function and its arguments, separated by commas
        std::string result;
    } cases[] = {
        {"F.zero, 1, nil, {}", "0"},
        {"select, '#', F.zero(1)", "1"},
        {"select, '#', F.nothing(1)", "0"},
        {"F.join, 'a\\0b', 1.5, nil", "a\0b|1.5|no"s},
        {"F.join, {}, {}", WRONG("1", "string expected, got table")},
        {"F.join, '', {}", WRONG("2", "string expected, got table")},
        {"F.int, -2^31", "-2147483648"},
        {"F.int, 2^31 - 1", "2147483647"},
        {"F.int, 2^31", WRONG("1", "number out of range")},
        {"F.int, 0/0", WRONG("1", "number out of range")},
        {"F.int, -1.9", "-1"},
        {"F.int", WRONG("1", "number expected, got no value")},
        {"F.byte, 256", WRONG("1", "number out of range")},
        {"F.byte, -0.5", "0"},
        {"F.byte, -1", WRONG("1", "number out of range")},
        {"rawequal, F.unsigned(2^63), 2^63", "true"},
        {"F.unsigned, 2^64", WRONG("1", "number out of range")},
        {"rawequal, F.long(-2^63), -2^63", "true"},
        {"F.long, 2^63", WRONG("1", "number out of range")},
        {"F.half, 3", "1.5"},
        {"F.throw, 1", "100% broken"},
        {"F.isNull, nil", "true"},
        {"F.isNull, rex", "false"},
        {"F.isNull, const", WRONG("1", "Zoo.Dog object expected, got a const one")},
        {"F.isNullConst, const", "false"},
        {"F.nameOfCopy, const", "rex"},
        {"Zoo.Animal.legs, const", "4"},
        {"Zoo.Animal.legs, nil", WRONG("1", "Zoo.Animal object expected")},
        {"rex.name, rex", "rex"},
        {"rex.name, io.stdout", WRONG("1", "Zoo.Dog object expected")},
        {"rex.rename, const, 'bo'", WRONG("1", "Zoo.Dog object expected, got a const one")},
        {"tostring, rex:rename('bo') or rex", "bo"},
        {"tostring, rex:puppy()", "rex the second, of a family with long names"},
        {"tostring, rex == rex:self()", "true"},
        {"tostring, rex == Zoo.Dog('rex')", "false"},
        {"Zoo.Dog, ''", "a dog needs a name"},
        {"getmetatable, Zoo.Rock", "nil"},  // it has no constructor
    };
    const std::string given =
        "local F, rex = Test.F, Zoo.Dog('rex') local const = rex:constSelf() ";
    for (const auto& c : cases)
        EXPECT_EQ(Evaluate(L, given + "return select(2, pcall(" + c.call + "))"), c.result)
            << c.call;
}

TEST_F(Functions, TellTheirTypeWhenRegisteredHere)
{
    PushValue(L, "Test.F.join");
    const SLB3::BaseInfo* join = SLB3::GetInfo(L, -1);
    ASSERT_EQ(join->type(), SLB3::BaseInfo::kType_function);
    ASSERT_EQ(join->num_args(), 3);
    EXPECT_STREQ(join->args()[1]->name(), "const char*");
    EXPECT_STREQ(join->type_returned()->name(), "std::string");
    PushValue(L, "Zoo.Dog.rename");
    EXPECT_EQ(SLB3::GetInfo(L, -1)->type_returned(), nullptr);
    PushValue(L, "Zoo.Animal.legs");
    EXPECT_EQ(SLB3::GetInfo(L, -1)->args()[0]->type(), SLB3::BaseInfo::kType_class);
    EXPECT_STREQ(SLB3::GetInfo(L, -1)->args()[0]->name(), "Zoo.Animal");

    Evaluate(L, "record = select(2, debug.getupvalue(Test.F.zero, 2))");
    for (const char* value :
         {"1", "print", "io.lines('/proc/self/status')",
          "(function(a, b) return function() return a, b end end)(1, record)"}) {
        PushValue(L, value);
        EXPECT_EQ(SLB3::GetInfo(L, -1), nullptr) << value;
    }
    lua_pushnil(L);
    std::memset(lua_newuserdata(L, 16), 0xA5, 16);
    lua_pushcclosure(L, lua_error, 2);
    EXPECT_EQ(SLB3::GetInfo(L, -1), nullptr);
}

}  // namespace

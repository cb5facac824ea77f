#include <cstring>

#include "Zoo.h"

namespace {

int Zero()
{
    return 0;
}
void Nothing() {}
std::string Join(const std::string& a, const char* b, bool c)
{
    return a + "|" + b + "|" + (c ? "yes" : "no");
}
int ShowInt(int value)
{
    return value;
}
unsigned char ShowByte(unsigned char value)
{
    return value;
}
unsigned long ShowUnsigned(unsigned long value)
{
    return value;
}
long ShowLong(long value)
{
    return value;
}
double Half(const double& value)
{
    return value / 2;
}
int Throw(int)
{
    throw std::runtime_error("100% broken");
}
bool IsNull(const Dog* dog)
{
    return dog == nullptr;
}
bool IsNullMutable(Dog* dog)
{
    return dog == nullptr;
}
int Legs(const Animal& animal)
{
    return animal.legs;
}
void SetLegs(Animal& animal, int legs)
{
    animal.legs = legs;
}
std::string NameOfCopy(Dog dog)
{
    return dog.name;
}

}  // namespace

SLB3_IMPLEMENTATION(Animal, animal)
{
    animal.set("legs", Legs).set("setLegs", SetLegs);
}

SLB3_IMPLEMENTATION(Dog, dog)
{
    dog.constructor<const char*>()
        .set("name", &Dog::Name)
        .set("rename", &Dog::Rename)
        .set("puppy", &Dog::Puppy)
        .set("self", &Dog::Self)
        .set("constSelf", &Dog::ConstSelf)
        .set("legs", Legs)
        .set("setLegs", SetLegs)
        .setMetamethod("__tostring", &Dog::Name);
}

SLB3_IMPLEMENTATION(Rock, rock)
{
    static_cast<void>(rock);
}

SLB3_IMPLEMENTATION(Brick, brick)
{
    brick.constructor<>();
}

namespace {

class Functions : public testing::Test {
protected:
    Functions()
    {
        SLB3::Namespace(L.get(), "F")
            .set("zero", Zero)
            .set("nothing", Nothing)
            .set("join", Join)
            .set("int", ShowInt)
            .set("byte", ShowByte)
            .set("unsigned", ShowUnsigned)
            .set("long", ShowLong)
            .set("half", Half)
            .set("throw", Throw)
            .set("isNull", IsNull)
            .set("isNullMutable", IsNullMutable)
            .set("legs", Legs)
            .set("setLegs", SetLegs)
            .set("nameOfCopy", NameOfCopy);
        SLB3::Register<Dog>(L.get());
    }
    const StatePtr L = NewState();
};

TEST_F(Functions, CallAndConvert)
{
    const char* const expressions[] = {
        "F.zero() == 0",
        "F.zero(1, nil, {}) == 0 and select('#', F.zero(1)) == 1",
        "select('#', F.nothing(1)) == 0",
        "F.join('a\\0b', 1.5, nil) == 'a\\0b|1.5|no'",
        "F.int(-2147483648) == -2147483648 and F.int(2147483647) == 2147483647",
        "F.int(-1.9) == -1 and F.int('12') == 12",
        "F.byte(255) == 255 and F.byte(-0.5) == 0",
        "F.unsigned(2^63) == 2^63 and F.long(-2^63) == -2^63",
        "F.half(3) == 1.5",
        "F.isNull(nil) and F.isNullMutable(nil)",
        "not F.isNull(Zoo.Dog('rex')) and not F.isNullMutable(Zoo.Dog('rex'))",
        "F.legs(Zoo.Dog('rex')) == 4",
        "F.nameOfCopy(Zoo.Dog('rex'):constSelf()) == 'rex'",
    };
    for (const char* expression : expressions)
        EXPECT_EQ(Evaluate(L.get(), std::string("return ") + expression), "true") << expression;
}

TEST_F(Functions, RefuseWhatDoesNotFit)
{
    const struct {
        const char* call;
        const char* error;
    } cases[] = {
        {"F.int(2147483648)", "bad argument #1 to 'f' (number out of range)"},
        {"F.int(0/0)", "bad argument #1 to 'f' (number out of range)"},
        {"F.int()", "bad argument #1 to 'f' (number expected, got no value)"},
        {"F.byte(256)", "bad argument #1 to 'f' (number out of range)"},
        {"F.byte(-1)", "bad argument #1 to 'f' (number out of range)"},
        {"F.unsigned(2^64)", "bad argument #1 to 'f' (number out of range)"},
        {"F.long(2^63)", "bad argument #1 to 'f' (number out of range)"},
        {"F.join({}, {})", "bad argument #1 to 'f' (string expected, got table)"},
        {"F.join('', {})", "bad argument #2 to 'f' (string expected, got table)"},
        {"F.throw(1)", "100% broken"},
        {"F.legs(nil)", "bad argument #1 to 'f' (Zoo.Animal object expected)"},
        {"F.legs(io.stdout)", "bad argument #1 to 'f' (Zoo.Animal object expected)"},
        {"F.setLegs(Zoo.Dog('rex'):constSelf(), 3)",
         "bad argument #1 to 'f' (Zoo.Animal object expected, got a const one)"},
        {"F.isNullMutable(Zoo.Dog('rex'):constSelf())",
         "bad argument #1 to 'f' (Zoo.Dog object expected, got a const one)"},
        {"Zoo.Dog('')", "a dog needs a name"},
    };
    for (const auto& c : cases) {
        const std::string call = c.call;
        const std::size_t open = call.find('(');
        const std::string text =
            Evaluate(L.get(), "local f = " + call.substr(0, open) + " local r = f" +
                                  call.substr(open) + " return r");
        EXPECT_NE(text.find(c.error), std::string::npos) << c.call << ": " << text;
    }
}

TEST_F(Functions, CarryTheirTypeInTwoUpvalues)
{
    lua_getglobal(L.get(), "F");
    lua_getfield(L.get(), -1, "zero");
    ASSERT_STREQ(lua_getupvalue(L.get(), -1, 1), "");
    EXPECT_EQ(*static_cast<int (**)()>(lua_touserdata(L.get(), -1)), &Zero);
    EXPECT_EQ(lua_rawlen(L.get(), -1), sizeof(int (*)()));
    lua_pop(L.get(), 1);
    ASSERT_STREQ(lua_getupvalue(L.get(), -1, 2), "");
    EXPECT_EQ(lua_rawlen(L.get(), -1), 16u);
    lua_pop(L.get(), 1);
    EXPECT_EQ(lua_getupvalue(L.get(), -1, 3), nullptr);
    EXPECT_EQ(lua_tocfunction(L.get(), -1), &SLB3::Function<int (*)()>::Call);
}

TEST_F(Functions, TellTheirType)
{
    lua_getglobal(L.get(), "F");
    lua_getfield(L.get(), -1, "join");
    const SLB3::BaseInfo* join = SLB3::GetInfo(L.get(), -1);
    ASSERT_NE(join, nullptr);
    EXPECT_EQ(join->type(), SLB3::BaseInfo::kType_function);
    ASSERT_EQ(join->num_args(), 3);
    EXPECT_STREQ(join->args()[0]->name(), "std::string");
    EXPECT_STREQ(join->args()[1]->name(), "const char*");
    EXPECT_STREQ(join->args()[2]->name(), "bool");
    EXPECT_STREQ(join->type_returned()->name(), "std::string");

    lua_getfield(L.get(), -2, "setLegs");
    const SLB3::BaseInfo* set_legs = SLB3::GetInfo(L.get(), -1);
    EXPECT_EQ(set_legs->type_returned(), nullptr);
    EXPECT_EQ(set_legs->args()[0]->type(), SLB3::BaseInfo::kType_class);
    EXPECT_STREQ(set_legs->args()[0]->name(), "Zoo.Animal");

    lua_getfield(L.get(), -3, "zero");
    const SLB3::BaseInfo* zero = SLB3::GetInfo(L.get(), -1);
    EXPECT_EQ(zero->num_args(), 0);
    EXPECT_EQ(zero->args(), nullptr);
    EXPECT_EQ(zero->type_returned()->type(), SLB3::BaseInfo::kType_primitive_value);
    EXPECT_STREQ(zero->type_returned()->name(), "int");
    EXPECT_EQ(zero->type_returned()->num_args(), -1);
}

TEST_F(Functions, HaveNoTypeWhenRegisteredOtherwise)
{
    const char* const values[] = {
        "print",
        "1",
        "nil",
        "io.stdout",
        "io.lines('/proc/self/status')",  // C, upvalues of its own
        "(function() local a, b = F, F return function() return a, b end end)()",
        ("(function() local a, b = F, select(2, debug.getupvalue(F.zero, 2)) "
         "return function() return a, b end end)()"),
        "F",
    };
    for (const char* value : values) {
        Evaluate(L.get(), std::string("value = ") + value);
        lua_getglobal(L.get(), "value");
        EXPECT_EQ(SLB3::GetInfo(L.get(), -1), nullptr) << value;
    }
    EXPECT_EQ(SLB3::GetInfo(L.get(), 100), nullptr);
    lua_pushnil(L.get());
    std::memset(lua_newuserdata(L.get(), 16), 0xA5, 16);
    lua_pushcclosure(L.get(), lua_error, 2);
    EXPECT_EQ(SLB3::GetInfo(L.get(), -1), nullptr);
}

}  // namespace

// Records as they are written, and files that are not records.
#include "RecordReader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "ScratchDirectory.h"

namespace {

using replay::RecordReader;

const std::string kStart =
    "# vxa record 1\n"
    "# version 1.0.0, engine linux, host a, interval 5 s, processors 2, interval 10 s\n"
    "# policy {\"SYS_THR_RUNQ\":{\"value\":8}}\n"
    "time,action,state,port,rqpct,refusalpct,estab,scanmb,frepct,delta_t,errors\n";
const std::string kRow = "2026-11-22 04:06:37.123456,0,Deactivated,443,0.1,,inf,1e-7,45,10,";

// Reads the file to its end. Returns what it has, or the error without its folder.
std::string Read(const std::string& text)
{
    const ScratchDirectory folder;
    WriteText(folder.Path("f"), text);
    std::string found;
    try {
        RecordReader reader(folder.Path("f"));
        for (;;) {
            const auto event = reader.Next();
            if (event == RecordReader::Event::kEnd) return found;
            const auto& row = reader.CurrentRow();
            found += event == RecordReader::Event::kRow
                         ? std::to_string(row.time_us) + " " + std::to_string(row.known)
                         : std::string(reader.Text());
            found += ";";
        }
    } catch (const std::runtime_error& error) {
        return std::string(error.what()).substr(folder.Path("/").size());
    }
}

TEST(RecordReader, ReturnsEveryValue)
{
    const ScratchDirectory folder;
    WriteText(folder.Path("f"), kStart + kRow + "\"a, \"\"b\"\"\"\n");
    RecordReader reader(folder.Path("f"));
    while (reader.Next() != RecordReader::Event::kRow) continue;
    const auto& row = reader.CurrentRow();
    EXPECT_EQ(row.time_us, 1795320397123456u);
    EXPECT_TRUE(row.IsMeasured());
    EXPECT_FALSE(row.activated);
    EXPECT_EQ(row.port, 443);
    const double infinite = std::numeric_limits<double>::infinity();
    EXPECT_EQ(row.values, (decltype(row.values){0.1, 0, infinite, 1e-7, 45, 10}));
    EXPECT_EQ(row.known, 0b111101u);
    EXPECT_EQ(row.errors, "\"a, \"\"b\"\"\"");
    EXPECT_EQ(reader.IntervalS(), 10);
    EXPECT_EQ(reader.Progress(), 1);
}

TEST(RecordReader, NamesWhatIsWrong)
{
    const std::string empty_row = "2024-02-29 23:59:59.000001,7,Activated,,,,,,,,";
    const std::string heading =
        "1;version 1.0.0, engine linux, host a, interval 5 s, processors 2, interval 10 s;"
        "{\"SYS_THR_RUNQ\":{\"value\":8}};";
    const std::string no_record = "f: not a record of vxa run --record";
    const struct {
        std::string text, expected;
    } cases[] = {
        {kStart + empty_row + "\n# vxa record 1\n# by hand\n" + kRow + "\n" + kRow,
         heading + "1709251199000001 0;1;1795320397123456 61;"},
        {"", no_record},
        {"# vxa record 1", no_record},
        {std::string(1000000, '\0'), no_record},
        {"# vxa record 2\n", "f: line 1: record format '2' is not known"},
        {"# vxa record 1\n# version 3, interval inf s\n",
         "f: line 2: the heading does not end in ', interval SECONDS s'"},
        {"# vxa record 1\n# version 3, interval 10\n",
         "f: line 2: the heading does not end in ', interval SECONDS s'"},
        {"# vxa record 1\n\n",
         "f: line 2: the columns are expected here: time,action,state,port,"
         "rqpct,refusalpct,estab,scanmb,frepct,delta_t,errors"},
        {"# vxa record 1\n" + kStart.substr(kStart.find("time")) + kRow + "\n",
         "f: line 3: there is no heading above this row"},
        {kStart + "#" + std::string(300000, 'a'), "f: line 5: longer than 262144 bytes"},
        {kStart + "x\n", "f: line 5: no field after time"},
        {kStart + kRow + ",\n", "f: line 5: has more fields than there are columns"},
    };
    for (const auto& test : cases)
        EXPECT_EQ(Read(test.text), test.expected) << test.text.substr(0, 500);
}

// Each field in turn is replaced by one that is not valid there.
TEST(RecordReader, NamesWhichFieldIsWrong)
{
    const struct {
        std::size_t at, length;
        std::string field, expected;
    } cases[] = {
        {0, 26, "2026-13-22 04:06:37.123456",
         "time is '2026-13-22 04:06:37.123456', expected "
         "YYYY-MM-DD hh:mm:ss.uuuuuu"},
        {27, 1, "3", "action is '3', expected 0, 1, 2, 5, 6 or 7"},
        {29, 11, "On", "state is 'On', expected Activated or Deactivated"},
        {41, 3, "65536", "port is '65536', expected a number from 0 to 65535"},
        {45, 3, "0x1", "rqpct is '0x1', expected a number or nothing"},
    };
    for (const auto& test : cases) {
        std::string row = kRow;
        row.replace(test.at, test.length, test.field);
        EXPECT_EQ(Read(kStart + row + "\n"), "f: line 5: " + test.expected);
    }
}

}  // namespace

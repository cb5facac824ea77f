#include "Sandbox.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace sandbox {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFolder = "/var/opt/sandbox";
constexpr const char* kOriginalEtc = "/var/opt/etc";

[[noreturn]] void Fail(const std::string& what)
{
    throw std::runtime_error("no private mount namespace: " + what + ": " + std::strerror(errno));
}

void Mount(const char* source, const char* target, const char* type, unsigned long flags)
{
    if (mount(source, target, type, flags, nullptr) != 0) Fail(std::string("mount ") + target);
}

void Write(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!(file << text << std::flush)) Fail("write " + path);
}

// Without root, as the only user of a user namespace.
void Unshare()
{
    if (unshare(CLONE_NEWNS) == 0) return;
    const std::string uid = std::to_string(geteuid());
    const std::string gid = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) Fail("unshare");
    Write("/proc/self/setgroups", "deny");
    Write("/proc/self/uid_map", "0 " + uid + " 1");
    Write("/proc/self/gid_map", "0 " + gid + " 1");
}

// /etc as it is, but writable and seen by this process alone.
void CoverEtc()
{
    fs::create_directory(kOriginalEtc);
    Mount("/etc", kOriginalEtc, nullptr, MS_BIND | MS_REC);
    Mount("tmpfs", "/etc", "tmpfs", 0);
    for (const auto& entry : fs::directory_iterator(kOriginalEtc))
        if (entry.path().filename() != "vx_filter.conf")
            fs::create_symlink(entry.path(), fs::path("/etc") / entry.path().filename());
}

void AddCommand(const std::string& name)
{
    const std::string path = Path("bin/" + name);
    Write(path, "#!/bin/sh\necho \"$*\" > " + Path(name + ".args") + "\nexec cat " +
                    Path(name + ".out") + " 2> /dev/null\n");
    fs::permissions(path, fs::perms::all);
}

void Build()
{
    Unshare();
    Mount("none", "/", nullptr, MS_REC | MS_PRIVATE);
    Mount("tmpfs", "/var/opt", "tmpfs", 0);
    fs::create_directories(Path("bin"));
    CoverEtc();
    fs::create_directories(fs::path(kConfigLog).parent_path());
    Write(Path("meminfo"), "");
    Mount(Path("meminfo").c_str(), "/proc/meminfo", nullptr, MS_BIND);
    for (const char* name : {"nproc", "uptime", "vmstat"}) AddCommand(name);
    setenv("PATH", (Path("bin") + ":" + std::getenv("PATH")).c_str(), 1);
    setenv("SANDBOX", kFolder, 1);
}

std::string TryBuild()
{
    if (std::getenv("SANDBOX") != nullptr) return "";
    try {
        Build();
        return "";
    } catch (const std::exception& e) {
        return e.what();
    }
}

}  // namespace

const char* const kConfigLog = "/var/opt/vx_agent/diag/vx_filter_json.log";

const std::string& Enter()
{
    static const std::string kLacking = TryBuild();
    return kLacking;
}

std::string Path(const std::string& name)
{
    return std::string(kFolder) + "/" + name;
}

// Written in place: the mount holds on to the file.
void SetMeminfo(const std::string& text)
{
    Write(Path("meminfo"), text);
}

void SetOutput(const std::string& command, const char* text)
{
    fs::remove(Path(command + ".out"));
    if (text != nullptr) Write(Path(command + ".out"), text);
}

void FakeMachine()
{
    SetOutput("uptime", " 10:00:00 up 1 day, load average: 0.52, 0.58, 0.59\n");
    SetOutput("nproc", "4\n");
    SetMeminfo("MemTotal: 1000000 kB\nMemFree: 250000 kB\nBuffers: 1 kB\n");
}

std::string Read(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

}  // namespace sandbox

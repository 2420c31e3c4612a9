// A throw-away filesystem root shaped like the parts of procfs/sysfs the Linux back-ends read.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

namespace kelvo::test_support {

class FakeSysfs {
public:
    FakeSysfs() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kelvo-sysfs-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        root_ = pattern;
    }
    ~FakeSysfs() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    FakeSysfs(const FakeSysfs&) = delete;
    FakeSysfs& operator=(const FakeSysfs&) = delete;

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path path(const std::string& relative) const { return root_ / relative; }

    void write(const std::string& relative, const std::string& content) const {
        const auto target = path(relative);
        std::filesystem::create_directories(target.parent_path());
        std::ofstream out(target, std::ios::trunc);
        out << content;
        if (!out) throw std::runtime_error("cannot write " + target.string());
    }

    std::optional<std::string> read(const std::string& relative) const {
        std::ifstream in(path(relative));
        if (!in) return std::nullopt;
        std::ostringstream text;
        text << in.rdbuf();
        std::string value = text.str();
        while (!value.empty() && (value.back() == '\n' || value.back() == ' ')) value.pop_back();
        return value;
    }

    void mkdir(const std::string& relative) const {
        std::filesystem::create_directories(path(relative));
    }

    // A relative link, as sysfs uses, so it resolves inside the fake root.
    void symlink(const std::string& target, const std::string& relative) const {
        const auto link = path(relative);
        std::filesystem::create_directories(link.parent_path());
        std::filesystem::create_symlink(target, link);
    }

    // sys/class/hwmon/hwmon<index> linking to the hwmon directory below its device, with the
    // device's `device` link, the way the kernel lays it out. `device` is a path below
    // sys/devices (e.g. "platform/it87.656"); without one the hwmon is virtual. Returns the class
    // path for adding attributes.
    std::string addHwmon(int index, const std::string& driver,
                         const std::optional<std::string>& device) const {
        const std::string name = "hwmon" + std::to_string(index);
        const std::string deviceDir = "sys/devices/" + device.value_or("virtual");
        mkdir(deviceDir + "/hwmon/" + name);
        if (device) {
            std::filesystem::create_directory_symlink(
                "../../../" + std::filesystem::path(*device).filename().string(),
                path(deviceDir + "/hwmon/" + name + "/device"));
        }
        symlink("../../devices/" + device.value_or("virtual") + "/hwmon/" + name,
                "sys/class/hwmon/" + name);
        const std::string classPath = "sys/class/hwmon/" + name;
        write(classPath + "/name", driver + "\n");
        return classPath;
    }

private:
    std::filesystem::path root_;
};

}  // namespace kelvo::test_support

#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <system_error>

// A fresh temporary folder of this process's own, removed with all it holds
// when it goes: the stages of a test run execute the same binaries at once.
class TempFolder {
  public:
    TempFolder() {
        std::random_device random;
        path = std::filesystem::temp_directory_path() / ("velmora-test-" + std::to_string(random()));
        std::filesystem::create_directories(path);
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    // The path of `name` in the folder. Both are UTF-8 text, as the product
    // takes paths (a path's narrow form isn't UTF-8 on Windows).
    std::string file(const std::string& name) const {
        const std::u8string text = (path / std::u8string(name.begin(), name.end())).u8string();
        return {text.begin(), text.end()};
    }

    // Writes `text` to `name` (folders made as needed); returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories((path / name).parent_path());
        std::ofstream(path / name, std::ios::binary) << text;
        return file(name);
    }

    // What `name` holds, as text or as bytes.
    template <class Bytes = std::string>
    Bytes read(const std::string& name) const {
        std::ifstream in(path / name, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }

    std::filesystem::path path;
};

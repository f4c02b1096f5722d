// Shared set-up of the fuzz harnesses: a scratch folder of this process,
// a definitions database in it seeded from the example parameters, and a
// way to hand the input to the library as a file.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "kavrel/kavrel.h"

namespace kavrel::fuzz {

inline const std::filesystem::path& scratch() {
  static const std::filesystem::path dir = [] {
    auto d = std::filesystem::temp_directory_path() / ("kavrel-fuzz-" + std::to_string(::getpid()));
    std::filesystem::create_directories(d);
    return d;
  }();
  return dir;
}

// Writes the input to a file of the scratch folder and returns its path.
inline std::string inputFile(const uint8_t* data, size_t size, const char* name) {
  const std::string path = (scratch() / name).string();
  if (std::FILE* f = std::fopen(path.c_str(), "wb")) {
    if (size > 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  return path;
}

// A session on a database of the scratch folder, catalogues read.
inline KavrelDatabase& session() {
  static const std::shared_ptr<KavrelDatabase> s = [] {
    const std::string db = (scratch() / "fuzz.db").string();
    std::filesystem::remove(db);
    auto made = KavrelDatabase::create();
    made->createDatabase(db);
    made->DbOpen(db);
    made->importParametersFromXml(KAVREL_EXAMPLES_DIR "/parameters.xml");
    made->DbRead();
    return made;
  }();
  return *s;
}

}  // namespace kavrel::fuzz

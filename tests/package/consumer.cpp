// Creates a database through the installed library and checks its identity.
#include <kavrel/kavrel.h>

#include <cstdio>
#include <filesystem>

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const std::string path = argv[1];
  std::filesystem::remove(path);
  kavrel::KavrelDatabase::createDatabase(path);
  auto session = kavrel::KavrelDatabase::create();
  session->DbOpen(path);
  const bool ok = session->IsKavrelDatabase();
  std::printf("version %s\n", session->dbVersion().c_str());
  session->DbClose();
  return ok ? 0 : 1;
}

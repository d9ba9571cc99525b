// pelmora: the command-line tool over the library's public classes.
#include <cstdio>
#include <string_view>

int main(int argc, char** argv) {
  std::string_view command = argc > 1 ? argv[1] : "demo";
  std::printf("pelmora: %.*s is not available yet\n", static_cast<int>(command.size()), command.data());
  return 0;
}

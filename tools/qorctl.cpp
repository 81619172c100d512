// qorctl: the command-line companion of qor for the people who run a host.
#include <cstdio>
#include <cstring>

namespace {

const char kUsage[] =
    "Usage: qorctl COMMAND [ARGS]\n"
    "\n"
    "Commands:\n"
    "  help              this text\n"
    "\n"
    "More commands arrive as the service grows.\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0 ||
      std::strcmp(argv[1], "-h") == 0) {
    std::fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  std::fprintf(stderr, "qorctl: unknown command '%s' (try qorctl --help)\n", argv[1]);
  return 2;
}

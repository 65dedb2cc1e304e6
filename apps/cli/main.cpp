#include <string>
#include <vector>

#include "Cli.h"

int main(int argc, char** argv) {
  return vellum::cli::run(std::vector<std::string>(argv + 1, argv + argc));
}

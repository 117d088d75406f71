#include "factory_tool.hpp"

#include <iostream>

int main(int argc, char** argv) {
  return xpon::factory::tool::run(argc, argv, std::cout, std::cerr);
}

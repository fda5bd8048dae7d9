#include "RandomSeeds.h"

int main(int argc, char** argv) {
  return orv::test::writeRandomSeeds(argc, argv, 300, 4000);
}

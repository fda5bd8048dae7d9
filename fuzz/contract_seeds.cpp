#include "RandomSeeds.h"

int main(int argc, char** argv) {
  return orv::test::writeRandomSeeds(argc, argv, 240, 1400);
}

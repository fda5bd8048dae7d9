#include "RandomSeeds.h"

int main(int argc, char** argv) {
  return orv::test::writeRandomSeeds(argc, argv, 200, 1200);
}

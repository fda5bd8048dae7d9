// The module as a plug-in: the order of its operations.

#include <cstring>

#include "EngineTest.h"
#include "modules/streams/contract/Contract.h"
#include "modules/streams/flv/FLVAdaptor.h"

namespace orv::test {
namespace {

using ModuleTest = EngineTest;

// Where the Itanium ABI puts a virtual operation: its pointer to member holds the byte offset plus 1.
template <class Operation>
std::size_t slotOf(Operation operation) {
  std::size_t word;
  std::memcpy(&word, &operation, sizeof word);
  return (word - 1) / sizeof(void*);
}

template <class... Operations>
std::vector<std::size_t> slotsOf(Operations... operations) {
  return {slotOf(operations)...};
}

TEST_F(ModuleTest, orderOfTheOperations) {
  using A = IQVStreamAdaptor;
  using F = flv::FLVAdaptor;
  using C = IQVStreamContext;
  using S = IFileService;
  using B = IBackupConn;
  const struct {
    std::size_t first;
    std::vector<std::size_t> slots;
  } kInterfaces[] = {
      // The destructor takes two slots wherever it stands.
      {2, slotsOf(&A::getVersion, &A::open, &A::setUserData, &A::close, &A::erase, &A::getMemoryOverhead,
                  &A::getDuration, &A::getSize, &A::getEndPosition, &A::getType, &A::findSegmentByIndex,
                  &A::findSegmentByTime, &A::loadSegment, &A::onFreeSegment, &A::record, &A::flushSegment,
                  &A::getPermission, &A::getAttribute, &A::getMediaContexts, &A::getAllMediaContexts,
                  &F::config, &F::readConfig, &F::readConfigBool, &F::readConfigUnsigned)},
      {2, slotsOf(&C::reserved, &C::getConfigValue, &C::logMessage, &C::getFileService)},
      {0, slotsOf(&S::open, &S::close, &S::read, &S::write, &S::fstat, &S::stat, &S::unlink, &S::mkdir)},
      {0, slotsOf(&ISegmentHolder::onMessage, &ISegmentHolder::reserved)},
      {0, slotsOf(&IContextHolder::onContext)},
      {0, slotsOf(&IAllContextHolder::onAllContexts)},
      {0, slotsOf(&KTObject::getRefCount, &KTObject::addRef, &KTObject::release, &KTObject::self)},
      {6, slotsOf(&KTObject::queryTrue, &KTObject::noOperation, &B::open, &B::close, &B::write, &B::seek,
                  &B::unlink)},
  };
  for (const auto& [first, slots] : kInterfaces)
    for (std::size_t i = 0; i < slots.size(); ++i) EXPECT_EQ(slots[i], first + i);

  // And so the module itself answers, called as a host's compiler would call it.
  const auto adaptor = module().create(host);
  void** const table = *reinterpret_cast<void***>(adaptor.get());
  const auto number = [&](int slot) { return reinterpret_cast<u32 (*)(void*)>(table[slot])(adaptor.get()); };
  EXPECT_EQ(number(2), 0x100u);
  EXPECT_EQ(number(18), 6u);
}

}  // namespace
}  // namespace orv::test

// The module as a plug-in: the order of its operations, and the answers of a stream that only plays.

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

TEST_F(ModuleTest, orderOfTheOperations) {
  using A = IQVStreamAdaptor;
  using F = flv::FLVAdaptor;
  using C = IQVStreamContext;
  using S = IFileService;
  using B = IBackupConn;
  struct Slots {
    std::size_t first;
    std::vector<std::size_t> order;
  };
  const Slots kInterfaces[] = {
      {2,  // the destructor takes two slots wherever it stands
       {slotOf(&A::getVersion),
        slotOf(&A::open),
        slotOf(&A::setUserData),
        slotOf(&A::close),
        slotOf(&A::erase),
        slotOf(&A::getMemoryOverhead),
        slotOf(&A::getDuration),
        slotOf(&A::getSize),
        slotOf(&A::getEndPosition),
        slotOf(&A::getType),
        slotOf(&A::findSegmentByIndex),
        slotOf(&A::findSegmentByTime),
        slotOf(&A::loadSegment),
        slotOf(&A::onFreeSegment),
        slotOf(&A::record),
        slotOf(&A::flushSegment),
        slotOf(&A::getPermission),
        slotOf(&A::getAttribute),
        slotOf(&A::getMediaContexts),
        slotOf(&A::getAllMediaContexts),
        slotOf(&F::config),
        slotOf(&F::readConfig),
        slotOf(&F::readConfigBool),
        slotOf(&F::readConfigUnsigned)}},
      {2,
       {slotOf(&C::reserved), slotOf(&C::getConfigValue), slotOf(&C::logMessage),
        slotOf(&C::getFileService)}},
      {0,
       {slotOf(&S::open), slotOf(&S::close), slotOf(&S::read), slotOf(&S::write), slotOf(&S::fstat),
        slotOf(&S::stat), slotOf(&S::unlink), slotOf(&S::mkdir)}},
      {0, {slotOf(&ISegmentHolder::onMessage), slotOf(&ISegmentHolder::reserved)}},
      {0, {slotOf(&IContextHolder::onContext)}},
      {0, {slotOf(&IAllContextHolder::onAllContexts)}},
      {0,
       {slotOf(&KTObject::getRefCount), slotOf(&KTObject::addRef), slotOf(&KTObject::release),
        slotOf(&KTObject::self)}},
      {6,
       {slotOf(&KTObject::queryTrue), slotOf(&KTObject::noOperation), slotOf(&B::open), slotOf(&B::close),
        slotOf(&B::write), slotOf(&B::seek), slotOf(&B::unlink)}},
  };
  for (const Slots& slots : kInterfaces)
    for (std::size_t i = 0; i < slots.order.size(); ++i) EXPECT_EQ(slots.order[i], slots.first + i);

  // And so the module itself answers, called as a host's compiler would call it.
  const auto adaptor = module().create(host);
  void** const table = *reinterpret_cast<void***>(adaptor.get());
  const auto number = [&](int slot) { return reinterpret_cast<u32 (*)(void*)>(table[slot])(adaptor.get()); };
  EXPECT_EQ(number(2), 0x100u);
  EXPECT_EQ(number(18), 6u);
}

TEST_F(ModuleTest, answersOfAStreamThatOnlyPlays) {
  Stream stream = open(FlvBuilder().interleaved(5));
  struct : IContextHolder, IAllContextHolder {
    void onContext(u16, const void*, u32, u32, i64, u32, u32) override { ++calls; }
    void onAllContexts(const void*, u32) override { ++calls; }
    int calls = 0;
  } holder;
  IQVStreamAdaptor& adaptor = stream.adaptor;
  host.clearCalls();
  adaptor.close(nullptr);
  adaptor.setUserData(nullptr, nullptr);
  adaptor.setUserData(stream.handle, nullptr);
  adaptor.onFreeSegment(stream.handle, 3);
  SegmentBounds bounds{};
  EXPECT_FALSE(adaptor.flushSegment(stream.handle, &bounds));
  EXPECT_FALSE(adaptor.getMediaContexts(stream.handle, ContextTypeBefore, 0, &holder));
  EXPECT_FALSE(adaptor.getMediaContexts(stream.handle, ContextTypeAfter, 0, &holder));
  EXPECT_FALSE(adaptor.getAllMediaContexts(stream.handle, &holder));
  EXPECT_EQ(holder.calls, 0);
  EXPECT_TRUE(host.calls.empty());
  EXPECT_LT(adaptor.getMemoryOverhead(stream.handle), 4096u);
}

}  // namespace
}  // namespace orv::test

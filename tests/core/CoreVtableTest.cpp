// The recorder calls the peripheral object through its virtual table, by slot number, with its
// own headers: our host declarations must put every operation in the slot the recorder expects.
#include <cstddef>
#include <cstring>

#include "CoreTestSupport.h"

namespace {

// Slot of a virtual member function, decoded from its pointer-to-member representation
// (Itanium C++ ABI; the ARM variant keeps the virtual flag in the adjustment word).
template <typename F>
long SlotOf(F member) {
    struct Rep {
        std::ptrdiff_t ptr;
        std::ptrdiff_t adj;
    } rep;
    static_assert(sizeof(F) == sizeof(Rep), "member pointer is two words");
    std::memcpy(&rep, &member, sizeof(rep));
#if defined(__arm__) || defined(__aarch64__)
    if ((rep.adj & 1) == 0) return -1;
    return static_cast<long>(rep.ptr / static_cast<std::ptrdiff_t>(sizeof(void*)));
#else
    if ((rep.ptr & 1) == 0) return -1;
    return static_cast<long>((rep.ptr - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)));
#endif
}

TEST(VtableLayout, OperationsSitInTheSlotsTheRecorderCalls) {
    EXPECT_EQ(SlotOf(&CSerialDevOBD::ThreadFuncImpl), 2);
    EXPECT_EQ(SlotOf(&CSerialDevOBD::PreBeginThread), 3);
    EXPECT_EQ(SlotOf(&CSerialDevOBD::PostExitThread), 4);
    EXPECT_EQ(SlotOf(&CSerialDevOBD::PeripheralInitialize), 5);
    EXPECT_EQ(SlotOf(&CSerialDevOBD::PeripheralThreadCycle), 6);
    EXPECT_EQ(SlotOf(&CSerialDevOBD::MessageRegister), 7);
    EXPECT_EQ(SlotOf(&CSerialDevOBD::MessageUnRegister), 8);
    EXPECT_EQ(SlotOf(&CSerialDevOBD::HandlePeripParamChange), 9);
    EXPECT_EQ(SlotOf(&CSerialDevOBD::ProcessPeripheralData), 10);
    EXPECT_EQ(SlotOf(&CSerialDevOBD::SetMainChipSerialProperty), 11);
    // A non-virtual operation has no slot.
    EXPECT_EQ(SlotOf(&CSerialDevOBD::SendData), -1);
}

TEST(VtableLayout, ObjectIsItsPeripheralBaseAtTheSameAddress) {
    // The host keeps the object as a CPeripheralBase* and the bus hands that pointer back to the
    // handlers: single inheritance keeps both views at one address.
    fakehost::Reset();
    CPeripheralManage manage;
    void* raw = PeripheralCreate(&manage, nullptr, 0, 0);
    ASSERT_NE(raw, nullptr);
    auto* obj = static_cast<CSerialDevOBD*>(raw);
    EXPECT_EQ(static_cast<void*>(static_cast<CPeripheralBase*>(obj)), raw);
    EXPECT_EQ(static_cast<void*>(static_cast<Common::CThread*>(obj)), raw);
    EXPECT_EQ(PeripheralRelease(raw), 1);
}

}  // namespace

#include "agents/qorproclist.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "agents/qoragt.h"
#include "support/qortest.h"

namespace {

// A list that deletes its agents at the end of a test; the real lists never do.
class OwningList : public ManagedProcessList {
 public:
  ~OwningList() {
    for (Agent* agent : *this) delete agent;
  }
  Agent* add(const std::wstring& id, int frequency, ManagedStates state = Managed) {
    Agent* agent = new Agent();
    agent->setID(id);
    Policy* policy = new Policy();
    policy->setCheckFrequencyElement(frequency);
    agent->setPolicy(policy);
    agent->setManagedState(state);
    push_back(agent);
    return agent;
  }
};

std::vector<size_t> setBits(const std::bitset<MAX_CHECK_CYCLES>& mask) {
  std::vector<size_t> bits;
  for (size_t i = 0; i < mask.size(); ++i) {
    if (mask.test(i)) bits.push_back(i);
  }
  return bits;
}

}  // namespace

TEST(CheckSchedule, OneAgentAtSixtySeconds) {
  OwningList list;
  Agent* agent = list.add(L"a", 60);
  std::bitset<MAX_CHECK_CYCLES> mask = list.getMasterMask();
  EXPECT_EQ(13, list.getCycleCount());
  EXPECT_EQ(std::vector<size_t>({12}), setBits(mask));
  EXPECT_EQ(12u, agent->getCheckMask());
  EXPECT_FALSE(list.isDirty());
}

TEST(CheckSchedule, TwoAgentsAtTenAndFifteenSeconds) {
  OwningList list;
  Agent* ten = list.add(L"ten", 10);
  Agent* fifteen = list.add(L"fifteen", 15);
  std::bitset<MAX_CHECK_CYCLES> mask = list.getMasterMask();
  EXPECT_EQ(7, list.getCycleCount());
  EXPECT_EQ(2u, ten->getCheckMask());
  EXPECT_EQ(3u, fifteen->getCheckMask());
  EXPECT_EQ(std::vector<size_t>({2, 3, 4, 6}), setBits(mask));
  EXPECT_FALSE(mask.test(8));  // beyond the cycle count
}

TEST(CheckSchedule, EmptyListHasTwoCyclesAndNoBit) {
  OwningList list;
  std::bitset<MAX_CHECK_CYCLES> mask = list.getMasterMask();
  EXPECT_EQ(2, list.getCycleCount());
  EXPECT_TRUE(setBits(mask).empty());
}

TEST(CheckSchedule, OnlyUnmanagedAgentsScheduleLikeAnEmptyList) {
  OwningList list;
  Agent* a = list.add(L"a", 60, Unmanaged);
  Agent* b = list.add(L"b", 15, Unmanaged);
  a->setCheckMask(99);
  std::bitset<MAX_CHECK_CYCLES> mask = list.getMasterMask();
  EXPECT_EQ(2, list.getCycleCount());
  EXPECT_TRUE(setBits(mask).empty());
  EXPECT_EQ(0u, a->getCheckMask());
  EXPECT_EQ(0u, b->getCheckMask());
}

TEST(CheckSchedule, RebuildSortsTheAgentsByFrequency) {
  OwningList list;
  list.add(L"slow", 60);
  list.add(L"fast", 5);
  list.add(L"middle", 30);
  list.add(L"fast2", 5);
  list.getMasterMask();
  std::vector<std::wstring> order;
  for (Agent* agent : list) order.push_back(agent->getID());
  EXPECT_EQ(std::vector<std::wstring>({L"fast", L"fast2", L"middle", L"slow"}), order);
}

TEST(CheckSchedule, ChangesMakeTheScheduleDirty) {
  OwningList list;
  EXPECT_TRUE(list.isDirty());
  list.getMasterMask();
  EXPECT_FALSE(list.isDirty());
  Agent* agent = list.add(L"a", 60);
  EXPECT_TRUE(list.isDirty());
  list.getMasterMask();
  list.erase(list.begin());
  EXPECT_TRUE(list.isDirty());
  delete agent;
  list.getMasterMask();
  list.setDirty();
  EXPECT_TRUE(list.isDirty());
}

TEST(CheckSchedule, AFrequencyShorterThanACycleGetsNoPeriod) {
  OwningList list;
  Agent* agent = list.add(L"a", 3);
  std::bitset<MAX_CHECK_CYCLES> mask = list.getMasterMask();
  EXPECT_EQ(0u, agent->getCheckMask());
  EXPECT_TRUE(setBits(mask).empty());
}

TEST(CheckSchedule, TheCycleLimitKeepsItsNumber) {
  EXPECT_EQ(721, MAX_CHECK_CYCLES);
  OwningList list;
  EXPECT_EQ(721u, list.getMasterMask().size());
}

TEST(CheckSchedule, LongSchedulesAreCutAt721Cycles) {
  OwningList list;
  Agent* agent = list.add(L"a", 3600);  // 721 cycles exactly: the last bit is 720
  Agent* other = list.add(L"b", 1200);
  std::bitset<MAX_CHECK_CYCLES> mask = list.getMasterMask();
  EXPECT_EQ(MAX_CHECK_CYCLES, list.getCycleCount());
  EXPECT_EQ(720u, agent->getCheckMask());
  EXPECT_EQ(240u, other->getCheckMask());
  EXPECT_EQ(std::vector<size_t>({240, 480, 720}), setBits(mask));
}

TEST(CheckScheduleDeathTest, APeriodThatReachesPastTheLastBitEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The rebuild runs on the availability thread, where nothing catches.
  EXPECT_DEATH(std::thread([] {
                 OwningList list;
                 list.add(L"five", 5);
                 list.add(L"long", 3605);  // common multiple 3605: cut to 721, and period 1 marks 721
                 list.getMasterMask();
               }).join(),
               "bitset::set");
}

TEST(CheckSchedule, GreatestCommonDivisorAndLeastCommonMultiple) {
  EXPECT_EQ(5, ManagedProcessList::gcd(10, 15));
  EXPECT_EQ(30, ManagedProcessList::lcm(10, 15));
  EXPECT_EQ(60, ManagedProcessList::lcm(5, 60));
  EXPECT_EQ(7, ManagedProcessList::gcd(7, 0));
  // The product wraps in 32 bits before the division.
  EXPECT_EQ(65536, ManagedProcessList::lcm(65536, 65537));
}

TEST(ListLock, InListComparesAddresses) {
  OwningList list;
  Agent* agent = list.add(L"a", 60);
  Agent twin;
  twin.setID(L"a");
  EXPECT_TRUE(list.inList(agent));
  EXPECT_FALSE(list.inList(&twin));
  EXPECT_FALSE(list.inList(nullptr));
}

TEST(ListLock, UnlockFromAnotherThreadIsRefusedAndTheHolderKeepsTheLock) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 1);
  ManagedProcessList list;
  ASSERT_TRUE(list.lockList());
  bool refused = false;
  std::thread([&] { refused = !list.unlockList(); }).join();
  EXPECT_TRUE(refused);

  std::atomic<bool> gotIt{false};
  std::thread waiter([&] {
    list.lockList();
    gotIt = true;
    list.unlockList();
  });
  EXPECT_FALSE(qortest::waitFor([&] { return gotIt.load(); }, 200));  // still held by this thread
  EXPECT_TRUE(list.unlockList());
  waiter.join();
  EXPECT_TRUE(gotIt);
  EXPECT_EQ(1, qortest::countOccurrences(
                   qortest::readFile(dir.file("trace")),
                   "Unlock failed: list locked by one thread and unlock tried by another one\n"));
}

TEST(ListLock, SecondUnlockByTheHolderIsRefusedWithATrace) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 1);
  ManagedProcessList list;
  ASSERT_TRUE(list.lockList());
  EXPECT_TRUE(list.unlockList());
  EXPECT_FALSE(list.unlockList());
  EXPECT_EQ(1, qortest::countOccurrences(
                   qortest::readFile(dir.file("trace")),
                   "Unlock failed: list locked by one thread and unlock tried by another one\n"));
  EXPECT_TRUE(list.lockList());  // the mutex was left as it was
  EXPECT_TRUE(list.unlockList());
}

TEST(ListLock, TheRebuildTracesItsFigures) {
  qortest::TempDir dir;
  qortest::traceTo(dir.file("trace"), 1 | 146);
  OwningList list;
  list.add(L"ten", 10);
  list.add(L"fifteen", 15);
  list.getMasterMask();
  std::string trace = qortest::readFile(dir.file("trace"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "LCM of frequencies = 30"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Min Freq = 5"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "Cycle Count/len of mask = 7"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "agent/master mask set at: ten, 2"));
  EXPECT_EQ(1, qortest::countOccurrences(trace, "agent/master mask set at: fifteen, 3"));
}

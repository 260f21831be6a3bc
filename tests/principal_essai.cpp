// main() of every test program: googletest's own, with one rule more.  A
// fatal failure outside any case (a suite's servers that did not start in
// SetUpTestSuite) ends the program at once with status 1.  Left alone,
// googletest would mark every case of that suite "skipped", and ctest
// counts a skipped test as passed: a machine where slapd or Cyrus cannot
// start would pass the whole suite without running it.
#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

namespace {

// (googletest holds its own lock while it reports a result: the listener
// keeps track of whether a case runs instead of asking it.)
class EchecHorsDesCas : public ::testing::EmptyTestEventListener {
    bool b_DansUnCas = false;
    void OnTestStart(const ::testing::TestInfo &) override { b_DansUnCas = true; }
    void OnTestEnd(const ::testing::TestInfo &) override { b_DansUnCas = false; }
    void OnTestPartResult(const ::testing::TestPartResult &r) override {
        if (!r.fatally_failed() || b_DansUnCas) return;
        printf("%s:%d: failure outside any case, the suite cannot run:\n%s\n",
               r.file_name() ? r.file_name() : "?", r.line_number(), r.message());
        fflush(stdout);
        // Servers already started are plain children of the fixture's
        // script in their temporary directory; they are left to it.
        _exit(1);
    }
};

}  // namespace

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new EchecHorsDesCas);
    return RUN_ALL_TESTS();
}

#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <cstdio>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Tests can be listed anywhere.
  if (!GTEST_FLAG_GET(list_tests) && gtk_init_check() == FALSE) {
    std::fputs("These tests need a display: script/test gives them one.\n", stderr);
    return 1;
  }
  return RUN_ALL_TESTS();
}

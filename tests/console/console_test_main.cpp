#include <gtest/gtest.h>

#include <QApplication>
#include <memory>

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing the tests needs no display; running them needs the application object.
  std::unique_ptr<QApplication> App;
  if (!GTEST_FLAG_GET(list_tests)) App = std::make_unique<QApplication>(argc, argv);
  return RUN_ALL_TESTS();
}

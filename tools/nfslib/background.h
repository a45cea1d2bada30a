#pragma once

namespace nfslib::tool {

// Goes on in a child process; the one that was called waits for what becomes of it.
class Background {
 public:
  // Returns in the child only, which has no terminal of its own any more. To be called before there
  // are threads. Throws std::runtime_error when there can be no child.
  Background();
  // The called process ends with status 0, and the child lets go of standard input, output and
  // error. A child that ends without this passes its exit status on.
  void ready();

 private:
  int m_report;
};

}  // namespace nfslib::tool

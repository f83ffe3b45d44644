// A stream whose text comes to an end because memory runs out.
#pragma once

#include <istream>
#include <new>
#include <sstream>
#include <string>

namespace lofter::test {

class BreakingStream : public std::istream {
  public:
    explicit BreakingStream(const std::string& text) : std::istream(nullptr), buffer(text) { rdbuf(&buffer); }

  private:
    class Buffer : public std::stringbuf {
      public:
        using std::stringbuf::stringbuf;
        int_type underflow() override {
            const int_type next = std::stringbuf::underflow();
            return traits_type::eq_int_type(next, traits_type::eof()) ? throw std::bad_alloc() : next;
        }
    };

    Buffer buffer;
};

}  // namespace lofter::test

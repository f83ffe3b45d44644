// The exceptions of the program, each of which holds one message and returns it from what(), and the text of any.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace lofter {

class Exception : public std::exception {
  public:
    explicit Exception(std::string text) : message(std::move(text)) {}
    const char* what() const noexcept override { return message.c_str(); }

  private:
    std::string message;
};

// A method that the plugin does not offer.
class NotImplementedException : public Exception {
  public:
    explicit NotImplementedException(const std::string& method)
        : Exception("method `" + method + "' is not implemented") {}
};

// A method that ran and failed.
class MethodFailedException : public Exception {
  public:
    MethodFailedException(const std::string& method, const std::string& plugin, const std::string& reason)
        : Exception(plugin + "->" + method + "() failed: " + reason) {}
};

// A plugin that cannot be loaded; the identifier is the path of its file.
class InvalidPluginException : public Exception {
  public:
    InvalidPluginException(const std::string& identifier, const std::string& reason)
        : Exception("plugin `" + identifier + "' is invalid: " + reason) {}
};

// "unknown exception" for what is none of the standard's, nothing for null.
inline std::string TextOf(const std::exception_ptr& failure) {
    if (!failure) {
        return {};
    }
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace lofter

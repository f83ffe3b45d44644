// The exceptions of the program. Each holds one message and returns it from what().
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

}  // namespace lofter

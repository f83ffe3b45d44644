// An operator who lets everything happen, and remembers what was asked.
#pragma once

#include <string>

#include "console/Operator.h"

namespace lofter::test {

class WillingOperator final : public Operator {
  public:
    bool MayExecute(const std::string& plugin) override {
        asked += plugin + " ";
        return answer;
    }

    std::string asked;
    bool answer = true;
};

}  // namespace lofter::test

// Action names looked up, and action lists: ordering, uniqueness, printing.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "shared/conf/QueltConfParser.h"

namespace
{

using QueltConf::QueltAction;
using QueltConf::QueltActions;

TEST(ActionNames, LookupLowersAndTrimsOnly)
{
    struct Row {
        const char* name;
        std::string input;
        QueltAction::Action expected;
    };
    const Row rows[] = {
        {"blanks around", " REJECT ", QueltAction::Reject},
        {"mixed case", "Add-Header", QueltAction::AddHeader},
        {"every space class", "\r\n\v\f score \t", QueltAction::Score},
        {"inner blank", "re ject", QueltAction::NoAction},
        {"empty", "", QueltAction::NoAction},
        {"no name for 13", "noaction", QueltAction::NoAction},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(QueltAction(row.input).GetCode(), row.expected);
    }
}

TEST(ActionLists, KeepAscendingCodesOnceAndPrintJoined)
{
    struct Row {
        const char* name;
        std::vector<QueltAction::Action> inserted;
        std::string printed;
    };
    const Row rows[] = {
        {"empty", {}, ""},
        {"one", {QueltAction::Score}, "score"},
        {"main actions unsorted",
         {QueltAction::Tempfail, QueltAction::Discard, QueltAction::Reject, QueltAction::Pass},
         "pass | reject | discard | tempfail"},
        {"additional actions reversed",
         {QueltAction::Score, QueltAction::AddHeader, QueltAction::Notify, QueltAction::Redirect,
          QueltAction::Quarantine},
         "quarantine | redirect | notify | add-header | score"},
        {"repeats", {QueltAction::Cure, QueltAction::Pass, QueltAction::Cure}, "pass | cure"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        QueltActions list;
        for (QueltAction::Action code : row.inserted)
            list.Insert(code);
        EXPECT_EQ(list.Print(), row.printed);
        EXPECT_EQ(list.Empty(), row.inserted.empty());
    }
}

} // namespace

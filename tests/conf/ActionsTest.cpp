// Action names and codes, and action lists: ordering, uniqueness, printing.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "shared/conf/QueltConfParser.h"

namespace
{

using QueltConf::QueltAction;
using QueltConf::QueltActions;

TEST(ActionNames, EachCodeHasItsNameAndBack)
{
    const std::vector<std::string> names = {"pass",       "reject",   "cure",       "remove",
                                            "quarantine", "redirect", "discard",    "notify",
                                            "tempfail",   "continue", "add-header", "score"};
    for (int32_t code = 0; code < 12; ++code) {
        const auto action = static_cast<QueltAction::Action>(code);
        SCOPED_TRACE(code);
        EXPECT_EQ(QueltAction::GetName(action), names[code]);
        EXPECT_EQ(QueltAction(names[code]).GetCode(), action);
    }
}

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
        {"trailing tab", "tempfail\t", QueltAction::Tempfail},
        {"every space class", "\r\n\v\f score \t", QueltAction::Score},
        {"underscore", "add_header", QueltAction::NoAction},
        {"inner blank", "re ject", QueltAction::NoAction},
        {"trailing comma", "reject,", QueltAction::NoAction},
        {"two names", "reject, quarantine", QueltAction::NoAction},
        {"empty", "", QueltAction::NoAction},
        {"only blanks", "  \t", QueltAction::NoAction},
        {"no name for 13", "noaction", QueltAction::NoAction},
        {"with data", "redirect(x)", QueltAction::NoAction},
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

TEST(ActionLists, InsertReportsNewCodesAndCopiesStayApart)
{
    QueltActions list{QueltAction::Reject, QueltAction::Pass};
    EXPECT_FALSE(list.Insert(QueltAction::Pass));
    EXPECT_EQ(list.GetNames(), (std::vector<std::string>{"pass", "reject"}));
    EXPECT_FALSE(list.Contains(QueltAction::NoAction));

    QueltActions copy(list);
    EXPECT_TRUE(copy.Insert(QueltAction::Score));
    EXPECT_EQ(list.Print(), "pass | reject");
    copy.Clear();
    EXPECT_TRUE(copy.Empty());
    EXPECT_TRUE(copy.GetNames().empty());
    EXPECT_FALSE(copy.Contains(QueltAction::Pass));
    EXPECT_TRUE(list.Contains(QueltAction::Pass));
}

} // namespace

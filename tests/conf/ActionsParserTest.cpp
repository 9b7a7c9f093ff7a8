// The action-string parser over real categories: which item lists it accepts,
// the exact fault and note lines it logs, the data it keeps, and which main
// action the holder picks.
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "platform/log/VxNDC.h"
#include "shared/conf/QueltConfParser.h"

namespace
{

using QueltConf::ActionsParser;
using QueltConf::QueltAction;
using QueltConf::QueltActions;
using QueltConf::QueltConfParser;

struct ParseResult {
    bool accepted;
    std::string list; // object 0's list, printed
    std::string log;  // every captured line
    std::string data; // the category's data fields
};

std::string DataOf(const ActionsParser::OlValue& category)
{
    return "redirect='" + category.m_redirect_address + "' header='" + category.m_header_name +
           "'/'" + category.m_header_value + "' score=" + std::to_string(category.m_score);
}

std::string ListOf(QueltConfParser& holder)
{
    std::string printed;
    for (int32_t code = 0; code < 12; ++code) {
        if (holder.GetParser().CheckActionObject(0, static_cast<QueltAction::Action>(code)))
            printed += (printed.empty() ? "" : " | ") +
                       QueltAction::GetName(static_cast<QueltAction::Action>(code));
    }
    return printed;
}

// Parses items as the only value of a fresh ProcessingErrors instance.
ParseResult ParseProcessingErrors(const std::vector<std::string>& items)
{
    QueltConfParser holder;
    holder.SetObjects({ActionsParser::OlValue(QueltConf::MakeProcessingErrors(), 0)});
    holder.GetParser().SetDefaults();
    ActionsParser::OlValue& category = holder.GetParser().GetObjects()[0];
    category.m_values = items;
    // A context of our own keeps the captured lines independent of how the
    // log back end shows an empty one.
    VxNDC context("conf");
    LogCapture capture;
    const bool accepted = holder.GetParser().Parse();
    return {accepted, ListOf(holder), capture.Text(), DataOf(category)};
}

const std::string NoData = "redirect='' header=''/'' score=0";

// One item, as --error-action gives it.
TEST(ProcessingErrors, ErrorActionOutcomes)
{
    const std::string wrongValueTail =
        "' for param 'ProcessingErrors' during action parse. Wait one of "
        "following:pass | reject | discard | tempfail\n";
    struct Row {
        const char* name;
        std::string item;
        bool accepted;
        QueltAction::Action main; // when accepted
        std::string log;
    };
    const Row rows[] = {
        {"mixed case", "TempFail", true, QueltAction::Tempfail, ""},
        {"blanks around", " discard ", true, QueltAction::Discard, ""},
        {"pass", "pass", true, QueltAction::Pass, ""},
        {"reject", "REJECT", true, QueltAction::Reject, ""},
        {"additional action", "quarantine", false, QueltAction::NoAction,
         "ERROR conf - Find wrong value 'quarantine" + wrongValueTail},
        {"additional with data", "redirect(x)", false, QueltAction::NoAction,
         "DEBUG conf - catch redirect address =x for param redirect\n"
         "ERROR conf - Find wrong value 'redirect(x)" +
             wrongValueTail},
        {"faulty score data", "score(ten)", false, QueltAction::NoAction,
         "ERROR conf - Invalid score value: ten\n"},
        {"missing close bracket", "notify(", false, QueltAction::NoAction,
         "ERROR conf - Bad value 'notify(' for param 'ProcessingErrors': couldn't find close "
         "bracket\n"},
        {"brackets reversed", "score)1(", false, QueltAction::NoAction,
         "ERROR conf - Bad value 'score)1(' for param 'ProcessingErrors': discrepancy between the "
         "brackets\n"},
        {"not in this category", "continue", false, QueltAction::NoAction,
         "ERROR conf - Find wrong value 'continue" + wrongValueTail},
        {"unknown name", "bounce", false, QueltAction::NoAction,
         "ERROR conf - Find wrong value 'bounce" + wrongValueTail},
        {"valid action with data", "reject(x)", false, QueltAction::NoAction,
         "ERROR conf - Unrecognize value 'reject(x)' for param ProcessingErrors\n"},
        {"two actions in one item", "reject, quarantine", false, QueltAction::NoAction,
         "ERROR conf - Find wrong value 'reject, quarantine" + wrongValueTail},
        {"empty", "", false, QueltAction::NoAction,
         "ERROR conf - Find wrong value '" + wrongValueTail},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        QueltConfParser holder;
        holder.SetObjects({ActionsParser::OlValue(QueltConf::MakeProcessingErrors(), 0)});
        holder.GetParser().SetDefaults();
        holder.GetParser().GetObjects()[0].m_values[0] = row.item;
        VxNDC context("conf");
        LogCapture capture;
        ASSERT_EQ(holder.GetParser().Parse(), row.accepted);
        EXPECT_EQ(capture.Text(), row.log);
        if (row.accepted)
            EXPECT_EQ(holder.GetMainAction(0), row.main);
        else
            EXPECT_THROW(holder.GetMainAction(0), std::invalid_argument);
    }
}

// Several items: the first from the valid actions, the rest from the
// additional ones, with data in parentheses.
TEST(ActionsParser, ItemListsAcceptedAndRefused)
{
    struct Row {
        const char* name;
        std::vector<std::string> items;
        ParseResult expected;
    };
    const std::string additionalMissing = "' for param 'ProcessingErrors' during action parse.\n";
    const Row rows[] = {
        {"header with colon",
         {"reject", "quarantine", "add-header(X-Flag: yes)"},
         {true, "reject | quarantine | add-header",
          "DEBUG conf - catch add header ='X-Flag:  yes' for param add-header\n",
          "redirect='' header='X-Flag'/' yes' score=0"}},
        {"header without colon",
         {"reject", "add-header( plain text )"},
         {true, "reject | add-header",
          "DEBUG conf - catch add header =': plain text' for param add-header\n",
          "redirect='' header=''/'plain text' score=0"}},
        {"header name trimmed, later colons kept",
         {"reject", "add-header( X-A :b:c)"},
         {true, "reject | add-header",
          "DEBUG conf - catch add header ='X-A: b:c' for param add-header\n",
          "redirect='' header='X-A'/'b:c' score=0"}},
        {"redirect without data", {"reject", "redirect"}, {true, "reject | redirect", "", NoData}},
        {"redirect with data",
         {"tempfail", "Redirect( a@b.example )"},
         {true, "redirect | tempfail",
          "DEBUG conf - catch redirect address =a@b.example for param redirect\n",
          "redirect='a@b.example' header=''/'' score=0"}},
        {"later data overwrites",
         {"reject", "redirect(one)", "redirect(two)"},
         {true, "reject | redirect",
          "DEBUG conf - catch redirect address =one for param redirect\n"
          "DEBUG conf - catch redirect address =two for param redirect\n",
          "redirect='two' header=''/'' score=0"}},
        {"score with blanks and sign",
         {"reject", "score( -5 )"},
         {true, "reject | score", "", "redirect='' header=''/'' score=-5"}},
        {"score plus sign",
         {"reject", "score(+7)"},
         {true, "reject | score", "", "redirect='' header=''/'' score=7"}},
        {"text after bracket ignored",
         {"reject", "score(1) trailing"},
         {true, "reject | score", "", "redirect='' header=''/'' score=1"}},
        {"repeat added once",
         {"reject", "quarantine", "quarantine"},
         {true, "reject | quarantine", "", NoData}},
        {"score without data",
         {"reject", "score"},
         {false, "reject",
          "ERROR conf - Can't find additional data in '()' for value 'score" + additionalMissing,
          NoData}},
        {"score empty",
         {"reject", "score()"},
         {false, "reject", "ERROR conf - Invalid score value: \n", NoData}},
        {"score blank inside",
         {"reject", "score(1 2)"},
         {false, "reject", "ERROR conf - Invalid score value: 1 2\n", NoData}},
        {"score overflow",
         {"reject", "score(2147483648)"},
         {false, "reject", "ERROR conf - Invalid score value: 2147483648\n", NoData}},
        {"main action second",
         {"reject", "pass"},
         {false, "reject", "ERROR conf - Find wrong value 'pass" + additionalMissing, NoData}},
        {"bracket fault second",
         {"reject", "redirect(a"},
         {false, "reject",
          "ERROR conf - Bad value 'redirect(a' for param 'ProcessingErrors': couldn't find close "
          "bracket\n",
          NoData}},
        {"stops at first fault",
         {"reject", "score(1)", "pass", "redirect(x)"},
         {false, "reject | score", "ERROR conf - Find wrong value 'pass" + additionalMissing,
          "redirect='' header=''/'' score=1"}},
        {"no items",
         {},
         {false, "", "ERROR conf - Wrong empty value in ProcessingErrors param\n", NoData}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const ParseResult result = ParseProcessingErrors(row.items);
        EXPECT_EQ(result.accepted, row.expected.accepted);
        EXPECT_EQ(result.list, row.expected.list);
        EXPECT_EQ(result.log, row.expected.log);
        EXPECT_EQ(result.data, row.expected.data);
    }
}

// A category whose items may name any action, to build arbitrary lists.
ActionsParser::OlValue AnyActions(const std::vector<std::string>& items)
{
    QueltActions all;
    for (int32_t code = 0; code < 12; ++code)
        all.Insert(static_cast<QueltAction::Action>(code));
    ActionsParser::OlValue category("Any", {QueltAction::Notify}, all, all, "", 0, nullptr);
    category.m_values = items;
    return category;
}

TEST(MainAction, PrecedencePassContinueRejectTempfailDiscard)
{
    struct Row {
        const char* name;
        std::vector<std::string> items;
        QueltAction::Action expected;
    };
    const Row rows[] = {
        {"pass over reject", {"reject", "pass"}, QueltAction::Pass},
        {"continue over reject", {"reject", "continue", "discard"}, QueltAction::Continue},
        {"reject over tempfail", {"discard", "tempfail", "reject"}, QueltAction::Reject},
        {"tempfail over discard", {"discard", "tempfail"}, QueltAction::Tempfail},
        {"discard among others", {"notify", "discard", "quarantine"}, QueltAction::Discard},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        QueltConfParser holder;
        holder.SetObjects({AnyActions(row.items)});
        ASSERT_TRUE(holder.GetParser().Parse());
        EXPECT_EQ(holder.GetMainAction(0), row.expected);
    }
}

TEST(MainAction, ListWithoutOneThrowsNamingTheObject)
{
    QueltConfParser holder;
    holder.SetObjects({AnyActions({"reject"}), AnyActions({"quarantine", "cure"})});
    ASSERT_TRUE(holder.GetParser().Parse());
    EXPECT_EQ(holder.GetMainAction(0), QueltAction::Reject);
    try {
        holder.GetMainAction(1);
        FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "Could't find main action for object '1'");
    }
}

TEST(ActionsParser, RefusalLeavesEarlierListsParsedAndLaterOnesAlone)
{
    QueltConfParser holder;
    holder.SetObjects(
        {AnyActions({"pass"}), AnyActions({"discard", "bogus"}), AnyActions({"pass"})});
    holder.GetParser().SetDefaults(); // notify everywhere
    EXPECT_FALSE(holder.GetParser().Parse());
    const ActionsParser& parser = holder.GetParser();
    EXPECT_TRUE(parser.CheckActionObject(0, QueltAction::Pass));
    EXPECT_FALSE(parser.CheckActionObject(0, QueltAction::Notify));
    EXPECT_TRUE(parser.CheckActionObject(1, QueltAction::Discard));
    EXPECT_FALSE(parser.CheckActionObject(1, QueltAction::Notify));
    EXPECT_TRUE(parser.CheckActionObject(2, QueltAction::Notify));
    EXPECT_FALSE(parser.CheckActionObject(2, QueltAction::Pass));
}

TEST(ActionsParser, ReparseRebuildsListsButKeepsData)
{
    QueltConfParser holder;
    holder.SetObjects({AnyActions({"reject", "redirect(x)", "score(3)"})});
    ASSERT_TRUE(holder.GetParser().Parse());
    ActionsParser::OlValue& category = holder.GetParser().GetObjects()[0];
    category.m_values = {"pass"};
    ASSERT_TRUE(holder.GetParser().Parse());
    EXPECT_EQ(holder.GetMainAction(0), QueltAction::Pass);
    EXPECT_FALSE(holder.GetParser().CheckActionObject(0, QueltAction::Reject));
    EXPECT_EQ(DataOf(category), "redirect='x' header=''/'' score=3");

    // A fresh instance starts without data; a copy keeps it.
    const ActionsParser::OlValue fresh(category, 7);
    EXPECT_EQ(DataOf(fresh), NoData);
    EXPECT_EQ(fresh.m_number, 7);
    EXPECT_EQ(fresh.m_values, std::vector<std::string>{"pass"});
    EXPECT_EQ(DataOf(ActionsParser::OlValue(category)), DataOf(category));
}

TEST(QueltConfParser, SetObjectsResizesListsWithoutClearing)
{
    QueltConfParser holder;
    holder.SetObjects({AnyActions({}), AnyActions({})});
    holder.GetParser().SetDefaults();
    holder.SetObjects({AnyActions({}), AnyActions({}), AnyActions({})});
    EXPECT_TRUE(holder.GetParser().CheckActionObject(1, QueltAction::Notify));
    EXPECT_FALSE(holder.GetParser().CheckActionObject(2, QueltAction::Notify));
    EXPECT_THROW(holder.GetMainAction(2), std::invalid_argument);
}

} // namespace

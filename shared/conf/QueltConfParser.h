// shared/conf/QueltConfParser.h: the action rules. Action codes and names,
// ordered action lists, the parser that turns a category's value items into
// its action list, and the holder that picks a list's main action.
// Faults in configured values are logged at error level and reported as false;
// only GetMainAction throws (std::invalid_argument).
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include <boost/scoped_ptr.hpp>

namespace QueltConf
{

// One action. A plain value: copied freely, compared and ordered by code.
// Data written in parentheses belongs to the category, not to the action.
class QueltAction
{
public:
    enum Action : int32_t {
        Pass = 0,
        Reject = 1,
        Cure = 2,
        Remove = 3,
        Quarantine = 4,
        Redirect = 5,
        Discard = 6,
        Notify = 7,
        Tempfail = 8,
        Continue = 9,
        AddHeader = 10,
        Score = 11,
        // Built from a name that matches none of the twelve; never in a list.
        NoAction = 13
    };

    // Implicit on purpose: a code stands for its action wherever one is taken.
    QueltAction(Action code) : m_code(code) {}
    // Looks the name up lower-cased and trimmed of whitespace at both ends;
    // an unknown name gives NoAction.
    explicit QueltAction(const std::string& name);
    QueltAction(const QueltAction&) = default;
    QueltAction& operator=(const QueltAction&) = default;
    virtual ~QueltAction() = default;

    // The configuration name of code. Defined for Pass to Score only.
    static const std::string GetName(const Action& code);

    Action GetCode() const { return m_code; }

    bool operator==(const QueltAction& other) const { return m_code == other.m_code; }
    bool operator!=(const QueltAction& other) const { return m_code != other.m_code; }
    bool operator<(const QueltAction& other) const { return m_code < other.m_code; }

private:
    Action m_code;
};

// An ordered list of actions without repeated codes, ascending by code, with
// the members' names kept beside it in the same order.
class QueltActions
{
public:
    QueltActions() = default;
    // Inserts each action; order and repetitions do not matter.
    QueltActions(std::initializer_list<QueltAction> actions);
    QueltActions(const QueltActions&) = default;
    QueltActions& operator=(const QueltActions&) = default;
    virtual ~QueltActions() = default;

    bool Empty() const { return m_actions.empty(); }
    // Adds action unless its code is present already; says whether it did.
    bool Insert(const QueltAction& action);
    void Clear();
    bool Contains(const QueltAction& action) const;
    // The members' names, ascending by code.
    const std::vector<std::string>& GetNames() const { return m_names; }
    // The names joined by " | "; the empty string for an empty list.
    std::string Print() const;

private:
    void UpdateNames();

    std::set<QueltAction> m_actions;
    std::vector<std::string> m_names;
};

// Parses the value items of every category into the action lists of a
// QueltConfParser. The lists (m_vals) belong to that holder, which outlives
// the parser; the categories (m_objects) are the parser's own copies.
class ActionsParser
{
public:
    // One object category: what it allows, its value items, and the data
    // that its last redirect, add-header and score items carried. The
    // implicit copy constructor copies everything, data fields included.
    struct OlValue {
        // Items start as the default actions' names; data empty, score 0.
        // defValues and validActions must not be empty.
        OlValue(const std::string& name, const QueltActions& defValues,
                const QueltActions& validActions, const QueltActions& addActions,
                const std::string& description, int number, const char* kind);
        // A fresh instance of the category definition other, numbered number:
        // everything but the data fields, which start empty, score 0.
        OlValue(const OlValue& other, int number);

        std::string m_name; // also the parameter name in every fault text
        QueltActions m_def_values;
        std::vector<std::string> m_values; // one action per item
        QueltActions m_valid_actions;      // what the first item may name
        QueltActions m_add_actions;        // what each later item may name
        std::string m_description;
        int m_number;
        const char* m_kind; // not owned; may be null
        std::string m_redirect_address;
        std::string m_header_name;
        std::string m_header_value;
        int m_score;
    };

    // vals must outlive the parser and have one entry per object.
    ActionsParser(std::vector<QueltActions>& vals, const std::vector<OlValue>& objects);
    ActionsParser(const ActionsParser&) = delete;
    ActionsParser& operator=(const ActionsParser&) = delete;
    virtual ~ActionsParser() = default;

    // Parses item j of object into action, storing any data in parentheses
    // in object; hasData says whether there was data. False, after an error
    // line, for a malformed item or data the action does not take.
    bool ParseValue(OlValue& object, std::size_t j, QueltAction& action, bool& hasData);
    // Rebuilds every object's list from its items. Stops at the first refused
    // item with an error line and false; earlier lists stay as parsed.
    bool Parse();
    // Every object's list becomes a copy of its category's default actions.
    void SetDefaults();
    // Whether object pos's list holds action's code; pos below the count.
    bool CheckActionObject(unsigned int pos, const QueltAction& action) const;

    // The categories, in object order; a configuration source writes their
    // items before Parse.
    std::vector<OlValue>& GetObjects() { return m_objects; }
    const std::vector<OlValue>& GetObjects() const { return m_objects; }

private:
    std::vector<QueltActions>& m_vals;
    std::vector<OlValue> m_objects;
};

// Holds the parsed action list of each object and the parser that fills them.
// The parser goes first when the holder goes, then the lists.
class QueltConfParser
{
public:
    QueltConfParser() = default;
    QueltConfParser(const QueltConfParser&) = delete;
    QueltConfParser& operator=(const QueltConfParser&) = delete;
    virtual ~QueltConfParser() = default;

    // Installs a parser for objects (object i is objects[i]) and resizes the
    // lists to match; lists that remain keep their actions.
    void SetObjects(const std::vector<ActionsParser::OlValue>& objects);
    // The first of pass, continue, reject, tempfail, discard in object pos's
    // list. Throws std::invalid_argument when the list holds none of them.
    QueltAction::Action GetMainAction(unsigned int pos) const;
    // The installed parser; SetObjects must have run.
    ActionsParser& GetParser() { return *m_parser; }

private:
    std::vector<QueltActions> m_actions;
    boost::scoped_ptr<ActionsParser> m_parser;
};

// The category of errors while a message is processed, bound to
// --error-action: default reject; first item pass, reject, discard or
// tempfail; later items quarantine, redirect, notify, add-header or score.
ActionsParser::OlValue MakeProcessingErrors();

} // namespace QueltConf

// The mail settings and the test mail: mail set, mail show, test-mail.

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "korvanectl/Program.h"
#include "korvanectl/SettingRules.h"
#include "korvanectl/Table.h"
#include "mail/Transformers.h"

namespace korvane::ctl {

namespace {

constexpr char kServer[] = "emailServer";
constexpr char kPort[] = "emailPort";
constexpr char kUser[] = "emailUserName";
constexpr char kPassword[] = "emailPassword";
constexpr char kRecipients[] = "emailAddress";
constexpr char kSubject[] = "emailSubject";
constexpr char kUseLogin[] = "emailUseAuthentication";
constexpr char kUseTls[] = "emailUseSSLAuthentication";
// What stands over an alert when nobody has chosen anything else.
constexpr char kUsualSubject[] = "Korvane Pro";
// TLS from the first byte on: works with every server that offers it.
constexpr char kUsualPort[] = "465";
// Typed to clear a setting that has a value.
constexpr char kNothing[] = "-";

std::string textOf(const Dictionary& preferences, std::string_view key) {
    return stringValue(preferences.find(key));
}

std::string userNameIn(const Dictionary& preferences) {
    return QLBase64StringTransformer::transformedValue(textOf(preferences, kUser)).value_or("");
}

std::string recipientsIn(const Dictionary& preferences) {
    const std::string stored = textOf(preferences, kRecipients);
    return QLEmailArrayValueTransformer::stringFromArray(
        QLEmailArrayValueTransformer::arrayFromCommaDelimetedString(stored));
}

bool usesLogin(const Dictionary& preferences) { return booleanValue(preferences.find(kUseLogin)); }
bool usesTls(const Dictionary& preferences) { return booleanValue(preferences.find(kUseTls)); }

std::string encryptionWords(const Dictionary& preferences) {
    if (!usesTls(preferences)) return "none";
    if (!usesLogin(preferences)) return "none (TLS goes with a login)";
    return textOf(preferences, kPort) == kUsualPort ? "TLS" : "STARTTLS";
}

// ---- mail show ----------------------------------------------------------------------------------

Outcome<ExitStatus> runShow(Program& program) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) return preferences.failure();
    const bool hasPassword = !textOf(*preferences, kPassword).empty();
    const auto isOn = [&](std::string_view key) { return booleanValue(preferences->find(key)); };
    if (program.json) {
        printJson(program, Dictionary{{"server", textOf(*preferences, kServer)},
                                      {"port", textOf(*preferences, kPort)},
                                      {"login", usesLogin(*preferences)},
                                      {"user", userNameIn(*preferences)},
                                      {"passwordSet", hasPassword},
                                      {"recipients", recipientsIn(*preferences)},
                                      {"encryption", encryptionWords(*preferences)},
                                      {"subject", textOf(*preferences, kSubject)},
                                      {"driveMails", isOn("SMARTCheckEmail")},
                                      {"volumeMails", isOn("volumeUsageEmail")}});
        return ExitStatus::done;
    }
    Table table{{{"MAIL"}, {""}}};
    const auto row = [&table](const char* name, const std::string& value) {
        table.addRow({{name}, {value.empty() ? std::string{"(not set)"} : value}});
    };
    row("Server", textOf(*preferences, kServer));
    row("Port", textOf(*preferences, kPort));
    row("Login", usesLogin(*preferences) ? "yes" : "no");
    row("User name", userNameIn(*preferences));
    row("Password", hasPassword ? "(set, not shown)" : "");
    row("Recipients", recipientsIn(*preferences));
    row("Encryption", encryptionWords(*preferences));
    row("Subject", textOf(*preferences, kSubject));
    row("About drives", isOn("SMARTCheckEmail") ? "yes" : "no");
    row("About volumes", isOn("volumeUsageEmail") ? "yes" : "no");
    program.print(table.format(program.paint));
    return ExitStatus::done;
}

// ---- mail set -----------------------------------------------------------------------------------

// An answer as it counts: nothing typed keeps what is there, a dash clears it.
std::optional<std::string> answerTo(const Program& program, const std::string& question,
                                    const std::string& present, Echo echo) {
    const bool isHidden = echo == Echo::off;
    const std::string inBrackets = isHidden && !present.empty() ? "unchanged" : present;
    const std::optional<std::string> typed =
        program.ask(fmt::format("{}{}: ", question,
                                inBrackets.empty() ? "" : " [" + printable(inBrackets) + "]"),
                    echo);
    if (!typed) return std::nullopt;
    if (typed->empty()) return present;
    return *typed == kNothing ? std::string{} : *typed;
}

Result<PropertyList> ruled(std::string_view key, const std::string& answer) {
    const std::array words{answer};
    const std::optional<SettingRule> rule = ruleFor(preferenceRules(), key, nullptr);
    return rule ? typedValue(*rule, words) : Result<PropertyList>{PropertyList{answer}};
}

// A line of a login takes 64 characters of Base64: what is longer is stored, and so sent, as two
// lines, which no server takes for one.
constexpr std::size_t kLongestCredential = 48;

Result<PropertyList> encoded(const std::string& what, const std::string& text) {
    if (text.size() > kLongestCredential) {
        return Error{
            fmt::format("the {} may not be longer than {} characters: no server would "
                        "take it in its stored form",
                        what, kLongestCredential)};
    }
    const std::optional<std::string> stored =
        QLBase64StringTransformer::reverseTransformedValue(text);
    if (!stored) return Error{fmt::format("the {} may hold ASCII characters only", what)};
    return PropertyList{*stored};
}

// Asks everything; the error says which answer does not do, or that there was none.
Result<Dictionary> askForSettings(const Program& program, const Dictionary& present) {
    const Error noAnswer{"the questions were not answered; nothing was changed"};
    Dictionary answers;
    const auto take = [&answers](std::string_view key, Result<PropertyList> value) {
        if (value) answers.set(key, std::move(*value));
        return static_cast<bool>(value) ? std::string{} : value.error().message;
    };
    const auto server = answerTo(program, "Mail server", textOf(present, kServer), Echo::on);
    if (!server) return noAnswer;
    const std::string knownPort = textOf(present, kPort);
    const auto port =
        answerTo(program, "Port", knownPort.empty() ? kUsualPort : knownPort, Echo::on);
    if (!port) return noAnswer;
    const auto user =
        answerTo(program, "User name (- for no login)", userNameIn(present), Echo::on);
    if (!user) return noAnswer;
    const std::string knownPassword =
        QLBase64StringTransformer::transformedValue(textOf(present, kPassword)).value_or("");
    const auto password = user->empty() ? std::optional<std::string>{""}
                                        : answerTo(program, "Password", knownPassword, Echo::off);
    if (!password) return noAnswer;
    const auto recipients =
        answerTo(program, "Recipients, separated by commas", recipientsIn(present), Echo::on);
    if (!recipients) return noAnswer;
    const auto tls =
        answerTo(program, "Encrypt by TLS (yes or no)",
                 present.contains(kUseTls) && !usesTls(present) ? "no" : "yes", Echo::on);
    if (!tls) return noAnswer;

    for (const std::string& problem :
         {take(kServer, ruled(kServer, *server)), take(kPort, ruled(kPort, *port)),
          take(kUser, encoded("user name", *user)), take(kPassword, encoded("password", *password)),
          take(kRecipients, ruled(kRecipients, *recipients)),
          take(kUseTls, ruled(kUseTls, *tls))}) {
        if (!problem.empty()) return Error{problem};
    }
    answers.set(kUseLogin, !user->empty());
    return answers;
}

Outcome<ExitStatus> runSet(Program& program) {
    const Outcome<Dictionary> present = program.preferences.read();
    if (!present) return present.failure();
    const Result<Dictionary> answers = askForSettings(program, *present);
    if (!answers) return Failure{ExitStatus::refused, answers.error().message};
    const Edit edit{.apply = [&](Dictionary& preferences) -> Outcome<std::monostate> {
                        for (const auto& [key, value] : *answers) preferences.set(key, value);
                        if (textOf(preferences, kSubject).empty()) {
                            preferences.set(kSubject, kUsualSubject);
                        }
                        return std::monostate{};
                    },
                    .holds =
                        [&](const Dictionary& preferences) {
                            for (const auto& [key, value] : *answers) {
                                const PropertyList* const stored = preferences.find(key);
                                if (stored == nullptr || *stored != value) return false;
                            }
                            return true;
                        }};
    Outcome<ExitStatus> outcome = finishEdit(program, edit, [] {
        return std::string{"The mail settings are stored; try them with: korvanectl test-mail"};
    });
    if (outcome && usesTls(*answers) && !usesLogin(*answers)) {
        program.note("TLS goes with a login: without a user name the mails go unencrypted");
    }
    return outcome;
}

// ---- test-mail ----------------------------------------------------------------------------------

// What the session was about when it ended, by its step.
std::string_view subjectOfStep(int step) {
    static constexpr std::array<std::string_view, 12> kSubjects{
        "the connection",     "its greeting",     "EHLO",         "STARTTLS or NOOP",
        "AUTH LOGIN",         "the user name",    "the password", "the sender or a recipient",
        "the last recipient", "the DATA command", "the message",  "QUIT"};
    const bool isKnown = step >= 0 && static_cast<std::size_t>(step) < kSubjects.size();
    return isKnown ? kSubjects[static_cast<std::size_t>(step)] : "an unknown step";
}

Failure failureOf(const MailSessionEnd& end) {
    const std::string_view subject = subjectOfStep(end.step);
    const std::string text = printable(end.text);
    switch (end.outcome) {
        case MailOutcome::refused:
            return {ExitStatus::notSent,
                    fmt::format("not sent: the server refused {}: {}", subject, text)};
        case MailOutcome::dropped:
            return {
                ExitStatus::notSent,
                fmt::format("not sent: the server hung up, or fell silent, instead of answering "
                            "{}; its last line: {}",
                            subject, text.empty() ? "(none)" : text)};
        case MailOutcome::busy:
            return {ExitStatus::notSent,
                    "not sent: an earlier mail has been under way for more than a minute"};
        case MailOutcome::failed:
        case MailOutcome::sent:
            break;
    }
    return {ExitStatus::notSent, fmt::format("not sent, at {}: {}", subject, text)};
}

Outcome<ExitStatus> runTestMail(Program& program) {
    const Outcome<Dictionary> preferences = program.preferences.read();
    if (!preferences) return preferences.failure();
    const Outcome<MailSessionEnd> end = program.daemon.sendTestMail();
    if (!end) return end.failure();
    if (end->outcome != MailOutcome::sent) return failureOf(*end);
    program.print(fmt::format("The server {} has taken the test mail for {}.\n",
                              printable(textOf(*preferences, kServer)),
                              printable(recipientsIn(*preferences))));
    return ExitStatus::done;
}

}  // namespace

void addMailCommands(CLI::App& app, Program& program) {
    CLI::App* const mail = app.add_subcommand("mail", "The settings of the alert mails");
    mail->require_subcommand(1);
    addPrintingCommand(*mail, program, "show", "Show them, but for the password",
                       [&program] { return runShow(program); });
    addCommand(*mail, program, "set", "Ask for each of them and store the answers",
               [&program] { return runSet(program); });
    addCommand(app, program, "test-mail",
               "Have the daemon send a test mail, and say what became of it",
               [&program] { return runTestMail(program); });
}

}  // namespace korvane::ctl

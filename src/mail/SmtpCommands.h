// The words of the two sides of a session: what the client sends, each as a line of its own, and
// the two questions that a server asks for a login. A session goes by the codes of replies alone:
// the questions are for whoever plays or reads a server.
#pragma once

namespace korvane {

inline constexpr char kSmtpHello[] = "EHLO";
inline constexpr char kSmtpStartTls[] = "STARTTLS";
inline constexpr char kSmtpNothing[] = "NOOP";
inline constexpr char kSmtpLogin[] = "AUTH LOGIN";
inline constexpr char kSmtpMailFrom[] = "MAIL FROM: <%@>";
inline constexpr char kSmtpRecipient[] = "RCPT TO: <%@>";
inline constexpr char kSmtpData[] = "DATA";
// Ends the message.
inline constexpr char kSmtpMessageEnd[] = ".";
inline constexpr char kSmtpQuit[] = "QUIT";
// Belongs to the list, but no server knows it: it is never sent.
inline constexpr char kSmtpOpen[] = "OPEN";

// "Username:" and "Password:" in Base64.
inline constexpr char kSmtpUserNamePrompt[] = "VXNlcm5hbWU6";
inline constexpr char kSmtpPasswordPrompt[] = "UGFzc3dvcmQ6";

}  // namespace korvane

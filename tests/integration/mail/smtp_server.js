// Nodemailer's smtp-server as a peer of the tests: prints "ready", then each message as a line of
// JSON.   node smtp_server.js MODULES KEY CERTIFICATE PORT MODE IMPATIENCE TRAIT...
"use strict";
const fs = require("fs");
const [modules, key, certificate, port, mode, impatience, ...traits] = process.argv.slice(2);
const {SMTPServer} = require(`${modules}/smtp-server`);

const server = new SMTPServer({
    secure: mode === "tls",
    key: fs.readFileSync(key),
    cert: fs.readFileSync(certificate),
    authOptional: mode === "plain",
    allowInsecureAuth: mode === "login",
    hideSTARTTLS: mode === "plain" || mode === "login",
    disabledCommands: traits.includes("refuses hello") ? ["EHLO"] : [],
    socketTimeout: traits.includes("impatient") ? Number(impatience) : 300000,
    disableReverseLookup: true,
    logger: false,
    onConnect(session, callback) {
        if (!traits.includes("silent")) callback();
    },
    onAuth(auth, session, callback) {
        const isRight = auth.username === "grace@example.org" && auth.password === "secret";
        callback(isRight ? null : new Error("Invalid username or password"), {user: auth.username});
    },
    onRcptTo(address, session, callback) {
        callback(address.address.startsWith("unknown@") ? new Error("no such user") : null);
    },
    onData(stream, session, callback) {
        const chunks = [];
        stream.on("data", (chunk) => chunks.push(chunk));
        stream.on("end", () => {
            console.log(JSON.stringify({
                from: session.envelope.mailFrom.address,
                to: session.envelope.rcptTo.map((recipient) => recipient.address),
                secure: session.secure,
                data: Buffer.concat(chunks).toString("base64"),
            }));
            callback(null, "queued");
        });
    },
});
server.on("error", () => {});
server.listen(Number(port), "127.0.0.1", () => console.log("ready"));

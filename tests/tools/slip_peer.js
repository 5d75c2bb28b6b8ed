// The npm package "osc" as an independent SLIP peer over TCP, used only through its API:
//   node slip_peer.js MODULES send PORT   sends two messages to localhost:PORT on one connection
//   node slip_peer.js MODULES receive     prints "port N" for a port of the kernel's choice, then
//                                         each message received as one line of JSON
//   node slip_peer.js MODULES answer PORT listens on PORT, prints "port N", and answers each
//                                         /eos/ping with /eos/out/ping and the ping's arguments
//                                         on its connection, as a console does
// MODULES is the node_modules folder the package was installed into.
"use strict";
const net = require("net");
const path = require("path");
const [modules, mode, port] = process.argv.slice(2);
const osc = require(path.join(modules, "osc"));

// Bytes as arrays, 64-bit integers as decimal text, time tags without the derived JS time.
function shown(message) {
    return JSON.stringify(message, (key, value) => {
        if (value instanceof Uint8Array) return Array.from(value);
        if (osc.Long.isLong(value)) return value.toString();
        return key === "native" ? undefined : value;
    });
}

function fail(error) {
    console.error("slip_peer:", error.message);
    process.exit(1);
}

if (mode === "send") {
    const socketPort = new osc.TCPSocketPort({address: "127.0.0.1", port: Number(port), metadata: true});
    socketPort.on("error", fail);
    socketPort.on("ready", () => {
        // 0xC0 and 0xDB are SLIP's END and ESC: they must arrive escaped and come back whole.
        socketPort.send({address: "/peer/all", args: [
            {type: "i", value: -1073741824}, {type: "h", value: new osc.Long(0xdb, 0x7fffffff)},
            {type: "f", value: 0.5}, {type: "d", value: -2.25}, {type: "s", value: "text"},
            {type: "S", value: "sym"}, {type: "c", value: "x"},
            {type: "m", value: new Uint8Array([1, 0x90, 0x3c, 0x7f])},
            {type: "b", value: new Uint8Array([0xc0, 0xdb, 0xdc, 0xdd])},
            {type: "t", value: {raw: [0xeeb09384, 0x80000000]}},
            {type: "T"}, {type: "F"}, {type: "N"}, {type: "I"},
            [{type: "i", value: 1}, {type: "f", value: 2}]]});
        // UTF-8 in a string, and a control that kavrin-dump escapes.
        socketPort.send({address: "/peer/second", args: [{type: "s", value: "w\u00f6rld\t"}]});
        socketPort.close();
    });
    socketPort.open();
} else if (mode === "receive") {
    const server = net.createServer((socket) => {
        // Given a connected socket, the port listens on it by itself.
        const socketPort = new osc.TCPSocketPort({socket, metadata: true});
        socketPort.on("message", (message) => console.log(shown(message)));
        socketPort.on("error", fail);
    });
    server.listen(0, "127.0.0.1", () => console.log("port", server.address().port));
} else if (mode === "answer") {
    const server = net.createServer((socket) => {
        const socketPort = new osc.TCPSocketPort({socket, metadata: true});
        socketPort.on("message", (message) => {
            if (message.address === "/eos/ping") socketPort.send({address: "/eos/out/ping", args: message.args});
        });
        // A monitor that hangs up or breaks the framing costs only its own connection.
        socketPort.on("error", () => socket.destroy());
    });
    server.listen(Number(port), "127.0.0.1", () => console.log("port", server.address().port));
} else {
    fail(new Error("usage: node slip_peer.js MODULES send PORT | receive | answer PORT"));
}

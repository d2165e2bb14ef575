// The key service: hands out the device's private key or certificate over TCP, one request a connection.
// A request is a bare word without length or line end, so it is complete as soon as it equals a known word.

import { createServer } from 'node:net';

import { listen } from './server.js';

const SILENCE_LIMIT_MILLISECONDS = 10_000;

export async function startKeyService({ device, port, log }) {
  const replies = { privatekey: device.privateKeyPem, certificate: device.certificatePem };
  // A client that closes its own side first still gets its whole reply.
  const server = createServer({ allowHalfOpen: true }, (socket) => serve(socket, replies, log));
  return listen(server, port);
}

function serve(socket, replies, log) {
  const words = Object.keys(replies);
  let request = '';
  let answered = false;

  const answer = (outcome, text) => {
    answered = true;
    log(`key-service ${outcome}`);
    socket.end(frame(text));
  };
  const refuse = (reason) => answer('request error', `Error ${reason}`);

  socket.setEncoding('latin1');
  socket.on('data', (bytes) => {
    if (answered) {
      return; // Surplus is read all the same: unread bytes would turn the close into a reset.
    }
    request += bytes;
    if (words.includes(request)) {
      answer(`${request} ok`, replies[request]);
    } else if (!words.some((word) => word.startsWith(request))) {
      refuse('unknown request');
    }
  });
  socket.on('end', () => answered || refuse('incomplete request'));
  socket.setTimeout(SILENCE_LIMIT_MILLISECONDS);
  socket.on('timeout', () => (answered ? socket.destroy() : refuse('no request in time')));
  // A client that resets its connection is its own affair; the socket closes either way.
  socket.on('error', () => {});
}

/** 4 bytes length, big-endian, then the text. */
function frame(text) {
  const payload = Buffer.from(text, 'utf8');
  const length = Buffer.alloc(4);
  length.writeUInt32BE(payload.length);
  return Buffer.concat([length, payload]);
}

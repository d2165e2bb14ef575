import assert from 'node:assert/strict';
import { once } from 'node:events';
import { readFileSync } from 'node:fs';
import { connect } from 'node:net';
import { join } from 'node:path';
import { after, before, it } from 'node:test';

import { makeDevice, makeTemporaryDirectory, startCloud } from '../testing/harness.js';

const directory = makeTemporaryDirectory();
let device;
let cloud;

before(async () => {
  device = makeDevice(directory.path);
  cloud = await startCloud('--device', device.directory);
});
after(async () => {
  await cloud?.stop();
  directory.remove();
});

/** Sends the pieces, each after the one before has gone out; gives all bytes up to the close. */
async function exchange(pieces, { halfClose = false } = {}) {
  const socket = connect({ port: cloud.keyServicePort, host: '127.0.0.1', noDelay: true, allowHalfOpen: true });
  const received = [];
  socket.on('data', (bytes) => received.push(bytes));
  await once(socket, 'connect');
  for (const piece of pieces) {
    await new Promise((resolve) => { socket.write(piece, resolve); });
  }
  if (halfClose) {
    socket.end();
  }
  await once(socket, 'end');
  socket.destroy();
  return Buffer.concat(received);
}

function payloadOf(reply) {
  assert.equal(reply.readUInt32BE(0), reply.length - 4);
  return reply.subarray(4).toString('utf8');
}

for (const [word, file] of [['privatekey', 'device.key'], ['certificate', 'device.crt']]) {
  it(`"${word}" gives ${file} in one frame and closes`, async () => {
    const text = readFileSync(join(directory.path, file), 'utf8');
    assert.equal(payloadOf(await exchange([word])), text);
  });

  it(`"${word}" may come byte by byte`, async () => {
    assert.match(payloadOf(await exchange([...word])), /^-----BEGIN /);
  });

  it(`"${word}" is answered after the client has closed its side`, async () => {
    assert.match(payloadOf(await exchange([word], { halfClose: true })), /^-----BEGIN /);
  });
}

const refused = [
  ['an unknown word', ['publickey'], 'Error unknown request'],
  ['a word in capitals', ['PRIVATEKEY'], 'Error unknown request'],
  ['a word with a line end', ['privatekey\n'], 'Error unknown request'],
  ['random bytes', [Buffer.from([0, 0, 0, 10, 0xff])], 'Error unknown request'],
  ['an unfinished word', ['private'], 'Error incomplete request', { halfClose: true }],
  ['nothing', [], 'Error incomplete request', { halfClose: true }],
];
for (const [name, pieces, text, how] of refused) {
  it(`${name} gives "${text}"`, async () => {
    assert.equal(payloadOf(await exchange(pieces, how)), text);
  });
}

it('goes on after a client that resets its connection', async () => {
  const socket = connect(cloud.keyServicePort, '127.0.0.1');
  await once(socket, 'connect');
  socket.write('priv');
  socket.resetAndDestroy();
  assert.match(payloadOf(await exchange(['certificate'])), /^-----BEGIN CERTIFICATE-----/);
});

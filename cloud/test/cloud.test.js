import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { once } from 'node:events';
import { copyFileSync, cpSync, mkdirSync, rmSync, writeFileSync } from 'node:fs';
import { open } from 'node:fs/promises';
import { connect, createServer } from 'node:net';
import { join } from 'node:path';
import { after, before, describe, it } from 'node:test';

import {
  launchCloud, makeAssertion, makeDevice, makeTemporaryDirectory, requestToken, run, startCloud, waitUntil,
} from '../testing/harness.js';

const temporary = makeTemporaryDirectory();
let device;

before(() => { device = makeDevice(join(temporary.path, 'device')); });
after(() => temporary.remove());

function copyOfDevice(name) {
  const directory = join(temporary.path, name);
  cpSync(device.directory, directory, { recursive: true });
  return directory;
}

async function connection(port, bytes = '') {
  const socket = connect(port, '127.0.0.1');
  socket.on('error', () => {}); // A reset is one way to be closed.
  await once(socket, 'connect');
  socket.write(bytes);
  return socket;
}

/** Like a client that has its reply and keeps the connection for later. */
async function idleKeepAliveConnection(port) {
  const socket = await connection(port, 'GET /jwks HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n');
  const [reply] = await once(socket, 'data');
  assert.match(reply.toString(), /^HTTP\/1\.1 200 [^]*Connection: keep-alive/);
  return socket.resume();
}

const openssl = (...options) => assert.equal(spawnSync('openssl', options).status, 0);
const portOf = (url) => Number(new URL(url).port);

describe('start and stop', () => {
  for (const signal of ['SIGTERM', 'SIGINT']) {
    it(`${signal} ends it with status 0, whoever is connected`, async (t) => {
      const cloud = await startCloud('--device', device.directory);
      t.after(() => cloud.stop());
      const sockets = [
        await idleKeepAliveConnection(portOf(cloud.issuer)),
        await connection(cloud.keyServicePort),
        await connection(cloud.keyServicePort, 'private'),
        await connection(portOf(cloud.discovery)),
        await connection(portOf(cloud.issuer), 'POST /token HTTP/1.1\r\nContent-Le'),
      ];
      const closed = sockets.map((socket) => new Promise((resolve) => { socket.once('close', resolve); }));

      const start = Date.now();
      cloud.signal(signal);
      assert.equal(await cloud.exitStatus(), 0);
      assert.ok(Date.now() - start < 2000, 'it took too long');
      await Promise.all(closed);
      assert.equal(cloud.stdout.split('\n').length, 2, 'more than the ready line');
      assert.equal(cloud.stderr, '');
    });
  }

  it('serves on the ports given, again and again', async (t) => {
    const first = await startCloud('--device', device.directory);
    t.after(() => first.stop());
    await first.stop();
    const ports = [portOf(first.discovery), portOf(first.issuer), first.keyServicePort];
    const second = await startCloud(
      '--device', device.directory, '--discovery-port', `${ports[0]}`, '--idp-port', `${ports[1]}`,
      '--key-service-port', `${ports[2]}`,
    );
    t.after(() => second.stop());
    assert.equal(second.stdout, first.stdout);
    assert.equal(await second.stop(), 0);
  });

  it('a stop signal during the start ends it with status 0', async (t) => {
    const directory = copyOfDevice('starting');
    const keyFile = join(directory, 'device.key');
    rmSync(keyFile);
    assert.equal(spawnSync('mkfifo', [keyFile]).status, 0);
    const cloud = launchCloud('--device', directory);
    t.after(() => cloud.signal('SIGKILL'));
    const pipe = await open(keyFile, 'w'); // Returns as soon as the cloud, in the middle of its start, reads the key.
    cloud.signal('SIGTERM');
    await pipe.writeFile(device.privateKey);
    await pipe.close();
    assert.equal(await cloud.exitStatus(), 0);
  });

  it('listens on the loopback interface only', async (t) => {
    const cloud = await startCloud('--device', device.directory);
    t.after(() => cloud.stop());
    const other = connect(cloud.keyServicePort, '127.0.0.2');
    const [error] = await once(other, 'error');
    assert.equal(error.code, 'ECONNREFUSED');
  });
});

it('--verbose logs each request in a line, and no secret', async (t) => {
  const cloud = await startCloud('--device', device.directory, '--verbose');
  t.after(() => cloud.stop());
  const assertion = makeAssertion(device, cloud);
  const { body } = await requestToken(cloud, assertion);
  await requestToken(cloud, assertion);
  await fetch(`${cloud.discovery}device-0001?token=${body.access_token}`);
  await fetch(`${cloud.discovery}nobody`);
  await once((await connection(cloud.keyServicePort, 'privatekey')).resume(), 'close');
  await once((await connection(cloud.keyServicePort, 'secret')).resume(), 'close');

  const expected = [
    'idp POST /token 200',
    'idp refused: client assertion tokens must only be used once',
    'idp POST /token 401',
    'discovery GET /devices/device-0001 200',
    'discovery GET /devices/nobody 404',
    'key-service privatekey ok',
    'key-service request error',
    '',
  ].join('\n');
  await waitUntil(() => cloud.stderr.length >= expected.length, 'lines are missing');
  assert.equal(cloud.stderr, expected);
});

it('what the library prints does not reach stdout', async (t) => {
  const cloud = await startCloud('--device', device.directory);
  t.after(() => cloud.stop());
  const page = await fetch(`${cloud.issuer}/auth`, { headers: { Accept: 'text/html' } });
  assert.equal(page.status, 400);
  await cloud.stop();
  assert.match(cloud.stderr, /^oidc-provider NOTICE: /);
  assert.equal(cloud.stdout.split('\n').length, 2, 'more than the ready line');
});

describe('bad arguments end with status 2', () => {
  for (const [options, complaint] of [
    [[], '--device is missing (see --help)'],
    [['--device', 'x', '--idp-port', 'x'], '--idp-port must be a whole number, not "x"'],
    [['--device', 'x', '--discovery-port', '65536'], '--discovery-port must be from 0 to 65535, not 65536'],
    [['--device', 'x', '--key-service-port=-1'], '--key-service-port must be a whole number, not "-1"'],
    [['--device', 'x', '--token-lifetime', '0'], '--token-lifetime must be from 1 to 2147483647, not 0'],
    [['--device', 'x', '--scope', 'a b'], '--scope must be one word of printable ASCII without " and \\, not "a b"'],
    [['--device', 'x', '--scope', ''], '--scope must be one word of printable ASCII without " and \\, not ""'],
  ]) {
    it(`${options.join(' ') || 'none'}`, () => {
      const { status, stdout, stderr } = run('cloud.js', ...options);
      assert.deepEqual([status, stdout, stderr], [2, '', `cloud: ${complaint}\n`]);
    });
  }

  for (const options of [['--device'], ['--unknown'], ['surplus'], ['--verbose=yes']]) {
    it(options.join(' '), () => {
      const { status, stdout, stderr } = run('cloud.js', ...options);
      assert.deepEqual([status, stdout], [2, '']);
      assert.match(stderr, /^cloud: \S[^\n]*/);
    });
  }
});

describe('an unusable device ends with status 1', () => {
  const cases = [
    { name: 'missing key', spoil: (files) => rmSync(files.key), complaint: /device\.key: ENOENT/ },
    { name: 'missing certificate', spoil: (files) => rmSync(files.certificate), complaint: /device\.crt: ENOENT/ },
    { name: 'key that cannot be read', spoil: (files) => replaceByDirectory(files.key), complaint: /device\.key: EISDIR/ },
    { name: 'key that is none', spoil: (files) => writeFileSync(files.key, 'x'), complaint: /device\.key holds no usable private key/ },
    { name: 'certificate that is none', spoil: (files) => writeFileSync(files.certificate, 'x'), complaint: /device\.crt holds no usable certificate/ },
    { name: 'key of another device', spoil: (files) => makeOther(files), complaint: /do not belong together/ },
    {
      name: 'key of another size',
      spoil: ({ key, certificate }) => openssl('req', '-x509', '-newkey', 'rsa:3072', '-nodes', '-subj', '/CN=x', '-keyout', key, '-out', certificate),
      complaint: /does not hold an RSA key of 2048 bits/,
    },
    {
      name: 'certificate without subject',
      spoil: ({ key, certificate }) => openssl('req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-subj', '/', '-keyout', key, '-out', certificate),
      complaint: /has no subject that makes a device id/,
    },
  ];

  function replaceByDirectory(file) {
    rmSync(file);
    mkdirSync(file);
  }

  function makeOther({ key }) {
    const other = makeDevice(join(temporary.path, 'other'));
    copyFileSync(join(other.directory, 'device.key'), key);
  }

  for (const { name, spoil, complaint } of cases) {
    it(name, () => {
      const directory = copyOfDevice(name);
      spoil({ key: join(directory, 'device.key'), certificate: join(directory, 'device.crt') });
      const { status, stdout, stderr } = run('cloud.js', '--device', directory);
      assert.deepEqual([status, stdout], [1, '']);
      assert.match(stderr, /^cloud: [^\n]+\n$/);
      assert.match(stderr, complaint);
    });
  }
});

it('the id is everything after the first "=" of the one-line subject', async (t) => {
  const long = makeDevice(join(temporary.path, 'long'));
  const [key, certificate] = ['device.key', 'device.crt'].map((name) => join(long.directory, name));
  openssl('req', '-x509', '-key', key, '-subj', '/C=DE/O=Maker,Inc./CN=device-0001', '-out', certificate);
  const cloud = await startCloud('--device', long.directory);
  t.after(() => cloud.stop());
  const id = 'DE/O=Maker,Inc./CN=device-0001';
  assert.equal((await fetch(cloud.discovery + id)).status, 200);
  assert.equal((await requestToken(cloud, makeAssertion(long, cloud, { sub: id, iss: id }))).status, 200);
});

it('a port that is taken ends it with status 1', async (t) => {
  const server = createServer().listen(0, '127.0.0.1');
  await once(server, 'listening');
  t.after(() => server.close());
  const { port } = server.address();
  const { status, stdout, stderr } = run('cloud.js', '--device', device.directory, '--key-service-port', `${port}`);
  assert.deepEqual([status, stdout], [1, '']);
  assert.equal(stderr, `cloud: listen EADDRINUSE: address already in use 127.0.0.1:${port}\n`);
});

it('explains itself', () => {
  const { status, stdout, stderr } = run('cloud.js', '--help');
  assert.equal(status, 0);
  assert.match(stdout, /^Usage: node cloud\.js /);
  assert.equal(stderr, '');
});

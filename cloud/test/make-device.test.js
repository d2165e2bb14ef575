import assert from 'node:assert/strict';
import { createPrivateKey, X509Certificate } from 'node:crypto';
import { readdirSync, readFileSync, statSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { beforeEach, afterEach, it } from 'node:test';

import { makeTemporaryDirectory, run } from '../testing/harness.js';

let temporary;
let out;

beforeEach(() => {
  temporary = makeTemporaryDirectory();
  out = join(temporary.path, 'not', 'there', 'yet');
});
afterEach(() => temporary.remove());

const make = (...options) => run('make-device.js', '--out', out, ...options);
const read = (name) => readFileSync(join(out, name), 'utf8');
const mode = (name) => statSync(join(out, name)).mode & 0o777;

it('makes a 2048-bit RSA key and a certificate that belongs to it', () => {
  const { status, stdout, stderr } = make();
  assert.equal(status, 0, stderr);
  assert.equal(stdout, `device-0001: ${join(out, 'device.key')} ${join(out, 'device.crt')}\n`);
  assert.deepEqual(readdirSync(out).sort(), ['device.crt', 'device.key']);

  const certificate = new X509Certificate(read('device.crt'));
  assert.equal(certificate.subject, 'CN=device-0001');
  assert.equal(certificate.publicKey.asymmetricKeyDetails.modulusLength, 2048);
  assert.ok(certificate.checkPrivateKey(createPrivateKey(read('device.key'))));
  assert.ok(certificate.verify(certificate.publicKey));
  assert.ok(Date.parse(certificate.validTo) - Date.now() > 365 * 24 * 3600 * 1000);
});

it('keeps the key from everyone but its owner', () => {
  make();
  assert.equal(mode('device.key'), 0o600);
  assert.equal(mode('device.crt'), 0o644);
});

it('takes the id from --id', () => {
  make('--id', 'a-b_c.9');
  assert.equal(new X509Certificate(read('device.crt')).subject, 'CN=a-b_c.9');
});

it('never replaces an identity unless asked', () => {
  make();
  const before = [read('device.key'), read('device.crt')];
  const { status, stdout, stderr } = make('--id', 'other');
  assert.equal(status, 1);
  assert.equal(stdout, '');
  assert.equal(stderr, `make-device: ${join(out, 'device.key')} exists already (--force replaces it)\n`);
  assert.deepEqual([read('device.key'), read('device.crt')], before);
});

it('with --force replaces both, and a careless mode', () => {
  make();
  const before = read('device.key');
  writeFileSync(join(out, 'device.key'), before, { mode: 0o644 });
  assert.equal(make('--id', 'other', '--force').status, 0);
  assert.notEqual(read('device.key'), before);
  assert.equal(mode('device.key'), 0o600);
  assert.equal(new X509Certificate(read('device.crt')).subject, 'CN=other');
});

it('reports a directory that cannot be made', () => {
  writeFileSync(join(temporary.path, 'not'), '');
  const { status, stderr } = make();
  assert.equal(status, 1);
  assert.match(stderr, /^make-device: ENOTDIR[^\n]*\n$/);
});

for (const [options, complaint] of [
  [['--id', 'a/b'], '--id must be 1 to 64 letters, digits, dots, dashes, underscores, not "a/b"'],
  [['--id', ''], '--id must be 1 to 64 letters, digits, dots, dashes, underscores, not ""'],
  [['--out', ''], '--out is missing (see --help)'],
]) {
  it(`refuses ${options.join(' ')}`, () => {
    const { status, stdout, stderr } = make(...options);
    assert.deepEqual([status, stdout, stderr], [2, '', `make-device: ${complaint}\n`]);
  });
}

it('explains itself', () => {
  const { status, stdout, stderr } = run('make-device.js', '--help');
  assert.equal(status, 0);
  assert.match(stdout, /^Usage: node make-device\.js /);
  assert.equal(stderr, '');
});

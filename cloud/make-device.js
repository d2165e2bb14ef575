#!/usr/bin/env node
// Makes a device's identity: an RSA key and a self-signed certificate whose subject is CN=<device id>.

import { spawnSync } from 'node:child_process';
import { existsSync, mkdirSync, rmSync, writeFileSync } from 'node:fs';

import { matching, required, runCommand } from './lib/command-line.js';
import { certificateFile, keyFile } from './lib/device.js';

const USAGE = `Usage: node make-device.js --out DIR [options]

Writes DIR/device.key (RSA, 2048 bits, readable by its owner only) and DIR/device.crt.

  --out DIR    the directory, made if missing
  --id NAME    the device's id, 1 to 64 letters, digits, dots, dashes, underscores
               (default device-0001)
  --force      replace an identity that exists already
  -h, --help   show this text
`;

const OPTIONS = {
  out: { type: 'string' },
  id: { type: 'string', default: 'device-0001' },
  force: { type: 'boolean', default: false },
};

function main(values) {
  const directory = required(values, 'out');
  const id = matching(values, 'id', /^[\w.-]{1,64}$/, '1 to 64 letters, digits, dots, dashes, underscores');
  const files = [keyFile(directory), certificateFile(directory)];

  const existing = files.find((file) => existsSync(file));
  if (existing && !values.force) {
    throw new Error(`${existing} exists already (--force replaces it)`);
  }
  const { key, certificate } = makeIdentity(id);
  mkdirSync(directory, { recursive: true });
  files.forEach((file) => rmSync(file, { force: true }));
  writeNew(keyFile(directory), key, 0o600);
  writeNew(certificateFile(directory), certificate, 0o644);
  process.stdout.write(`${id}: ${files.join(' ')}\n`);
}

/** Both PEM texts come through a pipe, so that no file ever holds the key with another mode. */
function makeIdentity(id) {
  const result = spawnSync('openssl', [
    'req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-sha256', '-days', '3650', '-subj', `/CN=${id}`, '-keyout', '-',
  ], { encoding: 'utf8' });
  if (result.error || result.status !== 0) {
    throw new Error(`openssl failed: ${result.error?.message ?? result.stderr.trim()}`);
  }
  return { key: pemBlock(result.stdout, 'PRIVATE KEY'), certificate: pemBlock(result.stdout, 'CERTIFICATE') };
}

function pemBlock(text, label) {
  const block = text.match(new RegExp(`-----BEGIN ${label}-----[^-]+-----END ${label}-----\n`));
  if (!block) {
    throw new Error(`openssl printed no ${label}`);
  }
  return block[0];
}

// "wx" refuses a file that appeared meanwhile, and makes the mode count: it is ignored for an existing file.
const writeNew = (file, text, mode) => writeFileSync(file, text, { flag: 'wx', mode });

await runCommand({ name: 'make-device', usage: USAGE, options: OPTIONS, main });

#!/usr/bin/env node
// Starts the local cloud for one device: identity provider, discovery endpoint and key service.

import { Console } from 'node:console';

import { required, runCommand, UsageError, wholeNumber } from './lib/command-line.js';

const USAGE = `Usage: node cloud.js --device DIR [options]

Starts a local cloud on 127.0.0.1 for the device whose device.key and device.crt are in DIR,
prints one line when it is ready, and runs until SIGTERM or SIGINT.

  --device DIR              the device's directory (see make-device.js)
  --discovery-port N        port of the discovery endpoint (default 0: any free port)
  --idp-port N              port of the identity provider (default 0)
  --key-service-port N      port of the key service (default 0)
  --scope NAME              a scope that the device may ask for; give it once a scope
                            (default: telemetry and update)
  --token-lifetime SECONDS  lifetime of access tokens (default 3600)
  --verbose                 log each request to stderr
  -h, --help                show this text
`;

const OPTIONS = {
  device: { type: 'string' },
  'discovery-port': { type: 'string', default: '0' },
  'idp-port': { type: 'string', default: '0' },
  'key-service-port': { type: 'string', default: '0' },
  scope: { type: 'string', multiple: true, default: ['telemetry', 'update'] },
  'token-lifetime': { type: 'string', default: '3600' },
  verbose: { type: 'boolean', default: false },
};

// Stdout carries the ready line only; whatever a library prints goes to stderr.
globalThis.console = new Console(process.stderr);

async function main(values) {
  const settings = readSettings(values);
  const stopSignal = new Promise((resolve) => {
    process.on('SIGTERM', resolve);
    process.on('SIGINT', resolve);
  });
  // Loading takes the most time by far; until here a stop signal would have found nobody to heed it.
  const { startCloud } = await import('./lib/start-cloud.js');
  const cloud = await startCloud(settings);
  process.stdout.write(`cloud ready ${cloud.addresses}\n`);
  await stopSignal;
  await cloud.stop();
}

function readSettings(values) {
  const port = (option) => wholeNumber(values, option, 0, 65535);
  return {
    directory: required(values, 'device'),
    ports: {
      discovery: port('discovery-port'),
      identityProvider: port('idp-port'),
      keyService: port('key-service-port'),
    },
    scopes: [...new Set(values.scope.map(scopeName))],
    // Devices count seconds in 32 bits.
    tokenLifetime: wholeNumber(values, 'token-lifetime', 1, 2 ** 31 - 1),
    log: values.verbose ? (line) => console.error(line) : () => {},
  };
}

/** The characters that RFC 6749 section 3.3 allows in a scope. */
function scopeName(name) {
  if (!/^[\x21\x23-\x5b\x5d-\x7e]+$/.test(name)) {
    throw new UsageError(`--scope must be one word of printable ASCII without " and \\, not "${name}"`);
  }
  return name;
}

await runCommand({ name: 'cloud', usage: USAGE, options: OPTIONS, main });

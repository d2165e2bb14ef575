// What the tests share: devices in temporary directories, the real commands as processes, and client assertions.

import assert from 'node:assert/strict';
import { spawn, spawnSync } from 'node:child_process';
import { randomUUID, sign } from 'node:crypto';
import { once } from 'node:events';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';

const DEADLINE_MILLISECONDS = 20_000;
const READY_LINE = /^cloud ready discovery=(http:\/\/127\.0\.0\.1:\d+\/devices\/) issuer=(http:\/\/127\.0\.0\.1:\d+) key-service=(\d+)\n$/;

const script = (name) => fileURLToPath(new URL(`../${name}`, import.meta.url));

export function makeTemporaryDirectory() {
  const path = mkdtempSync(join(tmpdir(), 'cloud-test-'));
  return { path, remove: () => rmSync(path, { recursive: true, force: true }) };
}

/** Runs a command to its end. */
export const run = (name, ...options) => spawnSync(process.execPath, [script(name), ...options], {
  encoding: 'utf8', timeout: DEADLINE_MILLISECONDS,
});

export function makeDevice(directory, ...options) {
  const result = run('make-device.js', '--out', directory, ...options);
  assert.equal(result.status, 0, result.stderr);
  return { directory, privateKey: readFileSync(join(directory, 'device.key'), 'utf8') };
}

/** Starts the cloud and waits for its ready line. What it has written so far is in stdout and stderr. */
export async function startCloud(...options) {
  const cloud = launchCloud(...options);
  try {
    return await cloud.ready();
  } catch (error) {
    cloud.signal('SIGKILL');
    throw error;
  }
}

/** Starts the cloud without waiting. */
export function launchCloud(...options) {
  const child = spawn(process.execPath, [script('cloud.js'), ...options], { stdio: ['ignore', 'pipe', 'pipe'] });
  const closed = once(child, 'close'); // Unlike "exit", after the last output.
  const cloud = { stdout: '', stderr: '' };
  child.stdout.setEncoding('utf8').on('data', (text) => { cloud.stdout += text; });
  child.stderr.setEncoding('utf8').on('data', (text) => { cloud.stderr += text; });

  const exitStatus = async () => (await withDeadline(closed, 'the cloud did not end'))[0];
  const stop = () => {
    child.kill('SIGTERM');
    return exitStatus();
  };
  const ready = async () => {
    await waitUntil(() => cloud.stdout.endsWith('\n') || child.exitCode !== null, 'the cloud was not ready');
    const line = cloud.stdout.match(READY_LINE);
    assert.ok(line, `no ready line: ${cloud.stdout}${cloud.stderr}`);
    const [, discovery, issuer, keyServicePort] = line;
    return Object.assign(cloud, { discovery, issuer, keyServicePort: Number(keyServicePort) });
  };
  return Object.assign(cloud, { ready, exitStatus, stop, signal: (name) => child.kill(name) });
}

export async function waitUntil(condition, complaint) {
  const end = Date.now() + DEADLINE_MILLISECONDS;
  while (!condition()) {
    assert.ok(Date.now() < end, complaint);
    await new Promise((resolve) => { setTimeout(resolve, 10); });
  }
}

async function withDeadline(promise, complaint) {
  let timer;
  const late = new Promise((resolve, reject) => {
    timer = setTimeout(() => reject(new Error(complaint)), DEADLINE_MILLISECONDS);
  });
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

export const encodeJwtPart = (value) => Buffer.from(JSON.stringify(value)).toString('base64url');
const decode = (part) => JSON.parse(Buffer.from(part, 'base64url').toString('utf8'));

export const decodeJwt = (token) => {
  const [header, payload] = token.split('.').slice(0, 2).map(decode);
  return { header, payload };
};

/** A good assertion, as a device makes it; claims given as undefined are left out. */
export function makeAssertion(device, cloud, claims = {}) {
  const now = Math.floor(Date.now() / 1000);
  const payload = {
    sub: 'device-0001',
    jti: randomUUID(),
    nbf: now,
    exp: now + 300,
    iat: now,
    iss: 'device-0001',
    aud: `${cloud.issuer}/token`,
    ...claims,
  };
  const signed = `${encodeJwtPart({ alg: 'RS256', typ: 'JWT' })}.${encodeJwtPart(payload)}`;
  return `${signed}.${sign('sha256', Buffer.from(signed), device.privateKey).toString('base64url')}`;
}

/** Asks for a token with the form that a device sends: four parameters, no client_id. */
export async function requestToken(cloud, assertion, scope = 'telemetry', more = {}) {
  const response = await fetch(`${cloud.issuer}/token`, {
    method: 'POST',
    headers: { Accept: 'application/json' },
    body: new URLSearchParams({
      grant_type: 'client_credentials',
      scope,
      client_assertion_type: 'urn:ietf:params:oauth:client-assertion-type:jwt-bearer',
      client_assertion: assertion,
      ...more,
    }),
  });
  return { status: response.status, body: await response.json() };
}

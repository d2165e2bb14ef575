import assert from 'node:assert/strict';
import { constants, privateDecrypt } from 'node:crypto';
import { join } from 'node:path';
import { after, before, it } from 'node:test';

import { makeDevice, makeTemporaryDirectory, startCloud } from '../testing/harness.js';

const BLOCK_BYTES = 256;

const directory = makeTemporaryDirectory();
let device;
let cloud;

before(async () => {
  device = makeDevice(join(directory.path, 'device'), '--id', 'Device_7.a-b');
  cloud = await startCloud('--device', device.directory);
});
after(async () => {
  await cloud?.stop();
  directory.remove();
});

async function fetchData() {
  const response = await fetch(`${cloud.discovery}Device_7.a-b`);
  assert.equal(response.status, 200);
  return (await response.json()).data;
}

/** Decrypts as a device does: block by block with RSA-OAEP, SHA-1. */
function decryptBlocks(data) {
  const bytes = Buffer.from(data, 'base64');
  assert.equal(bytes.length % BLOCK_BYTES, 0);
  const key = { key: device.privateKey, padding: constants.RSA_PKCS1_OAEP_PADDING, oaepHash: 'sha1' };
  return Array.from({ length: bytes.length / BLOCK_BYTES }, (_, index) => (
    privateDecrypt(key, bytes.subarray(index * BLOCK_BYTES, (index + 1) * BLOCK_BYTES))
  ));
}

it('names the identity provider, whose document can be fetched', async () => {
  const plaintext = Buffer.concat(decryptBlocks(await fetchData())).toString('utf8');
  const { config, device: description } = JSON.parse(plaintext);
  assert.equal(config.endpoints.veloIdConfiguration, `${cloud.issuer}/.well-known/openid-configuration`);
  assert.equal(description.id, 'Device_7.a-b');

  const document = await (await fetch(config.endpoints.veloIdConfiguration)).json();
  assert.equal(document.issuer, cloud.issuer);
  assert.equal(document.token_endpoint, `${cloud.issuer}/token`);
  assert.deepEqual(document.token_endpoint_auth_methods_supported, ['private_key_jwt']);
});

it('takes several blocks of UTF-8 text without NUL', async () => {
  const blocks = decryptBlocks(await fetchData());
  assert.ok(blocks.length > 2, `only ${blocks.length} blocks`);
  assert.ok(blocks.every((block) => block.length > 0 && !block.includes(0)));
  const plaintext = Buffer.concat(blocks);
  assert.ok(plaintext.equals(Buffer.from(plaintext.toString('utf8'), 'utf8')));
  assert.ok(plaintext.some((byte) => byte > 0x7f), 'nothing but ASCII');
});

it('is base64 without line breaks, encrypted anew for each request', async () => {
  const [first, second] = [await fetchData(), await fetchData()];
  assert.match(first, /^[A-Za-z0-9+/]+={0,2}$/);
  assert.notEqual(first, second);
});

it('ignores a query', async () => {
  assert.equal((await fetch(`${cloud.discovery}Device_7.a-b?version=2`)).status, 200);
});

for (const path of ['', 'device-0001', 'Device_7.a-b/', 'device_7.a-b', '../Device_7.a-b']) {
  it(`does not know /devices/${path}`, async () => {
    const response = await fetch(cloud.discovery + path);
    assert.equal(response.status, 404);
    assert.deepEqual(await response.json(), { error: 'unknown device' });
  });
}

it('answers nothing but GET', async () => {
  assert.equal((await fetch(`${cloud.discovery}Device_7.a-b`, { method: 'POST' })).status, 405);
});

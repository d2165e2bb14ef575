// A device's identity on disk: the names of its two files, and reading them.

import { createPrivateKey, X509Certificate } from 'node:crypto';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';

export const keyFile = (directory) => join(directory, 'device.key');
export const certificateFile = (directory) => join(directory, 'device.crt');

/** Reads key and certificate and derives what the cloud needs; throws when they are unusable or no pair. */
export function loadDevice(directory) {
  const privateKeyPem = read(keyFile(directory));
  const certificatePem = read(certificateFile(directory));
  const privateKey = parse(keyFile(directory), 'private key', () => createPrivateKey(privateKeyPem));
  const certificate = parse(certificateFile(directory), 'certificate', () => new X509Certificate(certificatePem));
  const { publicKey } = certificate;

  // The discovery reply is cut for this size, and devices decrypt it in blocks of this size.
  if (publicKey.asymmetricKeyType !== 'rsa' || publicKey.asymmetricKeyDetails.modulusLength !== 2048) {
    throw new Error(`${certificateFile(directory)} does not hold an RSA key of 2048 bits`);
  }
  if (!certificate.checkPrivateKey(privateKey)) {
    throw new Error(`${keyFile(directory)} and ${certificateFile(directory)} do not belong together`);
  }
  return { id: certificateId(certificate, directory), publicKey, privateKeyPem, certificatePem };
}

/** A device's id is everything after the first "=" of the subject in its one-line form (/C=DE/CN=x gives DE/CN=x). */
function certificateId(certificate, directory) {
  const oneLine = (certificate.subject ?? '').replaceAll('\n', '/').replace(/\\(.)/g, '$1');
  const id = oneLine.slice(oneLine.indexOf('=') + 1);
  if (!oneLine.includes('=') || !/^[\x21-\x7e]+$/.test(id)) {
    throw new Error(`${certificateFile(directory)} has no subject that makes a device id: "${oneLine}"`);
  }
  return id;
}

function read(file) {
  try {
    return readFileSync(file, 'utf8');
  } catch (error) {
    throw new Error(`cannot read ${file}: ${error.message}`);
  }
}

function parse(file, kind, parser) {
  try {
    return parser();
  } catch (error) {
    throw new Error(`${file} holds no usable ${kind}: ${error.message}`);
  }
}

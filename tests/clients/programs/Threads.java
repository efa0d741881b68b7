// java Threads.java CONFIGURATION [LOCK]: four threads sign with the keys "jrsa" and "jec" of the token by turns, with LOCK
// one after the other. Java itself verifies every signature with the certificate of the key that was asked for.
import java.security.*;
import java.util.ArrayList;
import java.util.concurrent.*;

public class Threads {
  public static void main(String[] arguments) throws Exception {
    Provider token = Security.getProvider("SunPKCS11").configure(arguments[0]);
    KeyStore store = KeyStore.getInstance("PKCS11", token);
    store.load(null, System.getenv("PIN").toCharArray());
    var threads = Executors.newFixedThreadPool(4);
    var results = new ArrayList<Future<Integer>>();
    for (int thread = 0; thread < 4; ++thread) {
      int first = thread;
      Object lock = arguments.length > 1 ? store : new Object();
      results.add(threads.submit(() -> {
        int right = 0;
        for (int round = first; round < first + 50; ++round) {
          String alias = round % 2 == 0 ? "jrsa" : "jec", kind = round % 2 == 0 ? "SHA256withRSA" : "SHA256withECDSA";
          byte[] data = ("document " + round).getBytes();
          Signature signer = Signature.getInstance(kind, token);
          byte[] signature;
          synchronized (lock) {
            signer.initSign((PrivateKey) store.getKey(alias, null));
            signer.update(data);
            signature = signer.sign();
          }
          Signature verifier = Signature.getInstance(kind, round % 2 == 0 ? "SunRsaSign" : "SunEC");
          verifier.initVerify(store.getCertificate(alias).getPublicKey());
          verifier.update(data);
          try {
            if (verifier.verify(signature)) ++right;
          } catch (SignatureException wrongLength) {}
        }
        return right;
      }));
    }
    int right = 0;
    for (var result : results) right += result.get();
    threads.shutdown();
    System.out.println(right + " of 200 signatures are right");
  }
}
